#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/base/Limits.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "tests/platform/archive/Bytes.h"

namespace larkspan::platform {
namespace {

using Code = ArchiveErrorCode;

constexpr Code kFine{0};
Code checked(std::string_view item) {
  const auto error = checkWellFormed(item);
  return error ? static_cast<Code>(error->code()) : kFine;
}

std::string head(CborMajor major, uint32_t argument) {
  std::string bytes(1, static_cast<char>(static_cast<unsigned>(major) << 5 | 26));
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(argument >> shift);
  return bytes;
}

TEST(Cbor, RefusesWhatBreaksTheFormatAndNamesTheByte) {
  const struct {
    Code code;
    const char* described;
    const char* items;
  } cases[] = {{Code::truncated, "(byte 0)", "18 1b00000000000000 6261 8201 5b b8ff6161"},
               {Code::truncated, "(byte 2)", "d820 818161 82f681 8181a1"},
               {Code::malformed, "indefinite length", "5f4101ff 7f6161ff 9fff bfff ff 811f df00"},
               {Code::malformed, "reserved", "1c 3d 5e 7d 9e bc dd fe"},
               {Code::malformed, "simple value", "e0 f3 f7 f8ff"},
               {Code::malformed, "64 bits", "1b8000000000000000 3b8000000000000000 1bffffffffffffffff"},
               {Code::invalidUtf8, "(byte 1)", "8161ff 8162c0af 8163eda080 8164f4908080 a161ff01"},
               {Code::malformed, "key that is not text",
                "a10102 a1f602 a18002 a1c1616102 d903e981a10102 d903e9a1410102"},
               {Code::duplicateKey, "(byte 5)", "a2616101616102 a2616180616101"},
               {Code::duplicateKey, "(byte 6)", "d903e9a201020103"},
               {Code::duplicateKey, "(byte 9)", "81a26161a1616201616102 a26161fa7fc00000616101"},
               {Code::malformed, "(byte 1)", "0000 80f6 6000"}};
  EXPECT_EQ(checked(""), Code::truncated);
  for (const auto& [code, described, items] : cases) {
    for (const std::string& item : words(items)) {
      ASSERT_EQ(checked(bytesOf(item)), code) << item;
      EXPECT_NE(checkWellFormed(bytesOf(item))->description().find(described), std::string::npos) << item;
    }
  }
  for (const std::string& item : words("1800 3b7fffffffffffffff 1b7fffffffffffffff f97e00 a0 80 d9ffff01 "
                                       "a26161a16161016162a1616101 d903e9a20102610103")) {
    EXPECT_EQ(checked(bytesOf(item)), kFine) << item;
  }
}

TEST(Cbor, FindsARepeatedKeyAmongAnyNumber) {
  for (const uint32_t size : {2U, 23U, 24U, 25U, 48U, 49U, 1000U, 100'000U}) {
    for (const uint32_t repeatAt : {size, size - 1}) {
      std::string bytes;
      CborWriter writer(bytes);
      writer.map(size);
      for (uint32_t i = 0; i < size; ++i) {
        writer.text("key" + std::to_string(i == repeatAt ? i - 1 : i));
        writer.null();
      }
      EXPECT_EQ(checked(bytes), repeatAt == size ? kFine : Code::duplicateKey) << size;
    }
  }
}

TEST(Cbor, HoldsTheLimitsToTheUnit) {
  for (const unsigned tags : {0, 3}) {
    const auto nested = [&](unsigned depth) {
      return checked(std::string(tags, '\xC1') + std::string(depth - tags, '\x81') + '\x01');
    };
    EXPECT_EQ(nested(limits::kMaximumDepth), kFine);
    EXPECT_EQ(nested(limits::kMaximumDepth + 1), Code::tooDeep);
    EXPECT_EQ(nested(1'000'000), Code::tooDeep);
  }

  constexpr auto kElements = static_cast<uint32_t>(limits::kMaximumElements);
  const std::string nulls(kElements, '\xF6');
  EXPECT_EQ(checked(head(CborMajor::array, kElements - 1) + nulls.substr(1)), kFine);
  for (const std::string& start : {head(CborMajor::array, kElements), head(CborMajor::map, kElements / 2),
                                   "\x82" + head(CborMajor::array, kElements - 2)}) {
    EXPECT_EQ(checked(start + nulls), Code::tooManyElements);
  }

  constexpr auto kContent = static_cast<uint32_t>(limits::kMaximumFrame - 5);
  EXPECT_EQ(checked(head(CborMajor::bytes, kContent) + std::string(kContent, 'x')), kFine);
  EXPECT_EQ(checked(head(CborMajor::text, kContent + 1) + std::string(kContent + 1, 'x')), Code::tooLarge);
}

TEST(Cbor, TakesNoMemoryForLengthsThatAreOnlyClaimed) {
  // With a mebibyte of address space to spare a claim of any of these sizes could not be met.
  const auto claims = words(
      "5bffffffffffffffff 7bffffffffffffffff 9bffffffffffffffff bbffffffffffffffff "
      "9b8000000000000000 bb8000000000000000 bb7fffffffffffffff 5affffffff 9affffffff ba00ffffff "
      "82f69a00ffffff");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit tight{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (1 << 20), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
#endif
  std::vector<Code> found;
  for (const std::string& claim : claims) found.push_back(checked(bytesOf(claim)));
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(found, std::vector<Code>(claims.size(), Code::truncated));
}

}  // namespace
}  // namespace larkspan::platform
