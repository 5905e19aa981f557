#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Utf8.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>

namespace larkspan::platform {
namespace {

TEST(Format, PrintsNumbersAsPrintfDoes) {
  constexpr long kLeast = std::numeric_limits<long>::min();
  EXPECT_EQ(format("%5d|%-5d|%05d|%+d|% d|%.3d|%8.3i", 42, 42, -7, 42, 42, 7, -7),
            "   42|42   |-0007|+42| 42|007|    -007");
  EXPECT_EQ(format("%ld %lld %#lX %lo", kLeast, kLeast, ~0ul, 8ul),
            "-9223372036854775808 -9223372036854775808 0XFFFFFFFFFFFFFFFF 10");
  EXPECT_EQ(format("%10.1f|%-10.1e|%G|%+a|%c", 0.25, 0.5, 1e-10, 1.0, 'x'),
            "       0.2|5.0e-01   |1E-10|+0x1p+0|x");
  EXPECT_EQ(format("%255.255f", -std::numeric_limits<double>::max()).size(), 566u);
}

TEST(Format, PrintsWhateverAnArgumentIsAndMisreadsNone) {
  const std::optional<std::string> some = "text", none;
  const std::shared_ptr<Object> object = std::make_shared<Object>(), nobody;
  EXPECT_EQ(format("%@ %s %@ %@ %@", "a", std::string("b"), some, none, nobody), "a b text (null) (null)");
  EXPECT_EQ(format("%@", object), object->description());
  EXPECT_EQ(format("%@ %@ %@ %@", true, -1, 0.1, std::vector<Value>{1, "b"}), "true -1 0.1 (1, b)");
  EXPECT_EQ(format("%d %x %f", "a", 1.5, "c"), "a 1.5 c");
  EXPECT_EQ(format("%d %f %.1f", uint64_t{1} << 63, 2, -2), "9223372036854775808 2.000000 -2.0");
  EXPECT_EQ(format("%2$@ %1$ld %2$@ %3$@ %@", 1, "b"), "b 1 b (null) 1");
  EXPECT_EQ(format("[%5@] [%-5s] [%05@]", "ab", "cd", 7), "[   ab] [cd   ] [    7]");
  // What is no conversion stays as it stands.
  EXPECT_EQ(format("100%% %y %-5.3lk %*d"), "100% %y %-5.3lk %*d");
  EXPECT_EQ(format("%@ %5$d %999999999999$@"), "(null) (null) (null)");
  EXPECT_EQ(format("%999999999999d", 1).size(), 255u);
  EXPECT_EQ(format(std::string_view("a\0b%@", 5), "c"), std::string("a\0bc", 4));
}

TEST(Utf8, AcceptsExactlyTheWellFormedSequencesAndRepairsTheRestByMaximalSubparts) {
  const std::string r = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> broken[] = {
      // Bytes that begin nothing, overlong forms, surrogates, beyond U+10FFFF.
      {"\x80", r},
      {"\xE0\x9F\xBF", r + r + r},
      {"\xED\xA0\x80", r + r + r},
      {"\xF0\x8F\xBF\xBF", r + r + r + r},
      {"\xF4\x90\x80\x80", r + r + r + r},
      // Sequences that break off: at the end, before ASCII, before another lead.
      {"\xF1\x80\x80x\xE1\x80\xC3\xA9", r + "x" + r + "\xC3\xA9"},
      {"\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64", "a" + r + r + r + "b" + r + "c" + r + r + "d"},
  };
  for (const auto& [bytes, repaired] : broken) {
    // Wherever it stands against the eight bytes that are looked at together.
    for (const std::string& before : {std::string(), std::string(3, '-'), std::string(8, '-')}) {
      EXPECT_FALSE(isValidUtf8(before + bytes + "tail")) << testing::PrintToString(bytes);
      EXPECT_EQ(repairedUtf8(before + bytes + "tail"), before + repaired + "tail");
      EXPECT_EQ(repairedUtf8(before + bytes), before + repaired);
    }
  }
  // The first and the last sequence of each row of the Unicode Standard's table 3-7.
  for (const std::string sound : {"", "\xC2\x80\xDF\xBF", "\xE0\xA0\x80\xE0\xBF\xBF\xE1\x80\x80\xEC\xBF\xBF",
                                  "\xED\x80\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF",
                                  "\xF0\x90\x80\x80\xF1\x80\x80\x80\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUtf8(sound) && repairedUtf8(sound) == sound) << testing::PrintToString(sound);
  }
  const char* const shorter[] = {"…", "a…", "a…", "a…", "a€…", "a€b"};
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(shortened("a€b", i), shorter[i]);
}

}  // namespace
}  // namespace larkspan::platform
