#include "larkspan/platform/text/SizeText.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace larkspan::platform {
namespace {

TEST(SizeText, RoundsAtTheBordersOfEveryUnit) {
  const struct {
    int64_t bytes;
    const char* text;
  } cases[] = {
      {0, "0 bytes"},
      {1, "1 byte"},
      {-1, "-1 byte"},
      {999, "999 bytes"},
      {1000, "1 KB"},
      {1499, "1 KB"},
      {1500, "2 KB"},
      {999'499, "999 KB"},
      {999'500, "1 MB"},
      {1'049'999, "1 MB"},
      {1'050'000, "1.1 MB"},
      {-1'050'000, "-1.1 MB"},
      {999'949'999, "999.9 MB"},
      {999'950'000, "1 GB"},
      {1'005'000'000, "1.01 GB"},
      {1'500'000'000, "1.5 GB"},
      {1'004'999'999, "1 GB"},
      {999'994'999'999, "999.99 GB"},
      {999'995'000'000, "1 TB"},
      {12'345'678'900'000, "12.35 TB"},
      {999'995'000'000'000'000, "1 EB"},
      {INT64_MAX, "9.22 EB"},
      {INT64_MIN, "-9.22 EB"},
  };
  for (const auto& c : cases) EXPECT_EQ(sizeText(c.bytes), c.text) << c.bytes;
}

}  // namespace
}  // namespace larkspan::platform
