#include "larkspan/platform/text/SizeText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace larkspan::platform {
namespace {

TEST(SizeText, RoundsAtTheBordersOfEveryUnit) {
  const std::pair<const char*, std::vector<int64_t>> cases[] = {{"0 bytes", {0}},
                                                                {"1 byte", {1}},
                                                                {"-1 byte", {-1}},
                                                                {"999 bytes", {999}},
                                                                {"1 KB", {1000, 1499}},
                                                                {"2 KB", {1500}},
                                                                {"999 KB", {999'499}},
                                                                {"1 MB", {999'500, 1'049'999}},
                                                                {"-1.1 MB", {-1'050'000}},
                                                                {"999.9 MB", {999'949'999}},
                                                                {"1 GB", {999'950'000, 1'004'999'999}},
                                                                {"1.01 GB", {1'005'000'000}},
                                                                {"1.5 GB", {1'500'000'000}},
                                                                {"1 TB", {999'995'000'000}},
                                                                {"9.22 EB", {INT64_MAX}},
                                                                {"-9.22 EB", {INT64_MIN}}};
  for (const auto& [text, sizes] : cases) {
    for (const int64_t size : sizes) EXPECT_EQ(sizeText(size), text) << size;
  }
}

}  // namespace
}  // namespace larkspan::platform
