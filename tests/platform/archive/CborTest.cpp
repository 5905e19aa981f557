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

/// What `checkWellFormed` finds; 0 for nothing.
Code checked(std::string_view item) {
  const auto error = checkWellFormed(item);
  EXPECT_TRUE(!error || error->domain() == kArchiveErrorDomain);
  return static_cast<Code>(error ? error->code() : 0);
}
constexpr Code kFine{0};

std::string head(CborMajor major, uint32_t argument) {
  std::string bytes(1, static_cast<char>(static_cast<unsigned>(major) << 5 | 26));
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(argument >> shift);
  return bytes;
}

TEST(Cbor, RefusesWhatBreaksTheFormatAndNamesTheByte) {
  const struct {
    const char* bytes;
    Code code;
    const char* place;
  } cases[] = {
      {"", Code::truncated, "byte 0"},
      {"18", Code::truncated, "byte 0"},
      {"1b 00000000000000", Code::truncated, "byte 0"},
      {"62 61", Code::truncated, "byte 0"},
      {"82 01", Code::truncated, "byte 0"},
      {"81 82 01", Code::truncated, "byte 1"},
      {"a1 6161", Code::truncated, "byte 3"},
      {"d820", Code::truncated, "byte 2"},
      {"5f 4101 ff", Code::malformed, "indefinite"},
      {"7f 6161 ff", Code::malformed, "indefinite"},
      {"81 9f ff", Code::malformed, "byte 1"},
      {"bf ff", Code::malformed, "indefinite"},
      {"ff", Code::malformed, "indefinite"},
      {"1c", Code::malformed, "reserved"},
      {"7d", Code::malformed, "reserved"},
      {"fe", Code::malformed, "reserved"},
      {"e0", Code::malformed, "simple value"},
      {"f7", Code::malformed, "simple value"},
      {"f8ff", Code::malformed, "simple value"},
      {"1b 8000000000000000", Code::malformed, "64 bits"},
      {"3b 8000000000000000", Code::malformed, "64 bits"},
      {"82 01 61ff", Code::invalidUtf8, "byte 2"},
      {"62 c0af", Code::invalidUtf8, "byte 0"},
      {"63 eda080", Code::invalidUtf8, "byte 0"},
      {"a1 61ff 01", Code::invalidUtf8, "byte 1"},
      {"a1 01 02", Code::malformed, "key that is not text"},
      {"a1 f6 02", Code::malformed, "key that is not text"},
      {"a1 80 02", Code::malformed, "key that is not text"},
      {"a1 c1 6161 02", Code::malformed, "key that is not text"},
      {"d903e9 81 a1 01 02", Code::malformed, "byte 5"},
      {"d903e9 a1 4101 02", Code::malformed, "byte 4"},
      {"d903e9 a2 01 02 01 03", Code::duplicateKey, "byte 6"},
      {"a2 6161 01 6161 02", Code::duplicateKey, "byte 5"},
      {"a2 60 01 7800 02", Code::duplicateKey, "byte 5"},
      {"81 a2 6161 a1 6162 01 6161 02", Code::duplicateKey, "byte 9"},
      {"00 00", Code::malformed, "byte 1"},
  };
  for (const auto& [bytes, code, place] : cases) {
    const auto error = checkWellFormed(bytesOf(bytes));
    ASSERT_TRUE(error) << bytes;
    EXPECT_EQ(static_cast<Code>(error->code()), code) << bytes;
    EXPECT_NE(error->localizedDescription().find(place), std::string::npos)
        << bytes << ": " << error->description();
  }
  for (const char* bytes : {"00", "1800", "3b7fffffffffffffff", "1b7fffffffffffffff", "f97e00", "a0", "80",
                            "a2 6161 a1 6161 01 6162 a1 6161 01", "d903e9 a2 01 02 6101 03", "d9ffff 01"}) {
    EXPECT_EQ(checked(bytesOf(bytes)), kFine) << bytes;
  }
}

TEST(Cbor, FindsARepeatedKeyAmongAnyNumber) {
  for (const uint32_t size : {2U, 23U, 24U, 25U, 48U, 49U, 1000U, 100'000U}) {
    const auto map = [&](uint32_t repeatAt) {
      std::string bytes;
      CborWriter writer(bytes);
      writer.map(size);
      for (uint32_t i = 0; i < size; ++i) {
        writer.text("key" + std::to_string(i == repeatAt ? i - 1 : i));
        writer.null();
      }
      return bytes;
    };
    EXPECT_EQ(checked(map(size)), kFine) << size;
    EXPECT_EQ(checked(map(size - 1)), Code::duplicateKey) << size;
  }
}

TEST(Cbor, HoldsTheLimitsToTheUnit) {
  const auto nested = [](unsigned arrays, unsigned tags) {
    std::string bytes;
    for (unsigned i = 0; i < tags; ++i) bytes += bytesOf("d820");
    return bytes + std::string(arrays, '\x81') + '\x01';
  };
  EXPECT_EQ(checked(nested(limits::kMaximumDepth, 0)), kFine);
  EXPECT_EQ(checked(nested(limits::kMaximumDepth + 1, 0)), Code::tooDeep);
  EXPECT_EQ(checked(nested(limits::kMaximumDepth - 3, 3)), kFine);
  EXPECT_EQ(checked(nested(limits::kMaximumDepth - 3, 4)), Code::tooDeep);
  EXPECT_EQ(checked(nested(1'000'000, 0)), Code::tooDeep);

  constexpr auto kElements = static_cast<uint32_t>(limits::kMaximumElements);
  EXPECT_EQ(checked(head(CborMajor::array, kElements - 1) + std::string(kElements - 1, '\xF6')), kFine);
  EXPECT_EQ(checked(head(CborMajor::array, kElements) + std::string(kElements, '\xF6')),
            Code::tooManyElements);
  EXPECT_EQ(checked("\x82" + head(CborMajor::array, kElements - 2) + std::string(kElements - 1, '\xF6')),
            Code::tooManyElements);
  EXPECT_EQ(checked(head(CborMajor::map, kElements / 2) + std::string(kElements, '\x60')),
            Code::tooManyElements);

  constexpr auto kContent = static_cast<uint32_t>(limits::kMaximumFrame - 5);
  EXPECT_EQ(checked(head(CborMajor::bytes, kContent) + std::string(kContent, 'x')), kFine);
  EXPECT_EQ(checked(head(CborMajor::text, kContent + 1) + std::string(kContent + 1, 'x')), Code::tooLarge);
}

TEST(Cbor, TakesNoMemoryForLengthsThatAreOnlyClaimed) {
  // With a mebibyte of address space to spare a claim of any of these sizes could not be met.
  std::vector<std::string> claims;
  for (const int major : {2, 3, 4, 5}) {
    for (const char* length : {"1b 7fffffffffffffff", "1b ffffffffffffffff", "1b 8000000000000000",
                               "1a ffffffff", "1a 00ffffff"}) {
      std::string bytes = bytesOf(length);
      bytes[0] = static_cast<char>(bytes[0] | major << 5);
      claims.push_back(bytes);
      claims.push_back(bytesOf("82 f6") + bytes);
    }
  }
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit tight{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (1 << 20), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
#endif
  std::vector<Code> found;
  for (const std::string& claim : claims) found.push_back(checked(claim));
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(found, std::vector<Code>(claims.size(), Code::truncated));
}

TEST(Cbor, SkipsWholeItemsAndTakesBackWhatWasWritten) {
  std::string bytes = "before";
  CborWriter writer(bytes);
  writer.array(3);
  const auto mark = writer.mark();
  writer.text("gone");
  writer.rewind(mark);
  const auto map = writer.openMap();
  for (int i = 0; i < 300; ++i) {
    writer.text(std::to_string(i));
    writer.bytes("xyz");
  }
  writer.closeMap(map, 300);
  writer.tag(CborTag::set);
  writer.array(1);
  writer.boolean(true);
  writer.integer(-5);
  EXPECT_EQ(writer.elements(), 1U + 601 + 3 + 1);
  ASSERT_EQ(writer.size(), bytes.size() - 6);
  ASSERT_EQ(checked(bytes.substr(6)), kFine);

  CborReader reader(std::string_view(bytes).substr(6));
  EXPECT_EQ(reader.next().argument, 3U);
  EXPECT_EQ(reader.peek().argument, 300U);
  reader.skip();
  EXPECT_TRUE(reader.peek().isTag(CborTag::set));
  reader.skip();
  EXPECT_EQ(reader.next().integer(), -5);
  EXPECT_TRUE(reader.atEnd());
}

}  // namespace
}  // namespace larkspan::platform
