#include "larkspan/platform/base/Utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace larkspan::platform {
namespace {

TEST(Utf8, AcceptsExactlyTheWellFormedSequencesAndRepairsTheRestByMaximalSubparts) {
  const std::string r = "\xEF\xBF\xBD";
  const struct {
    std::string bytes, repaired;
  } cases[] = {
      {"", ""},
      {"plain ASCII, longer than a word", "plain ASCII, longer than a word"},
      {std::string("a\0b", 3), std::string("a\0b", 3)},
      // The first and the last sequence of each row of the Unicode Standard's table 3-7.
      {"\xC2\x80\xDF\xBF", "\xC2\x80\xDF\xBF"},
      {"\xE0\xA0\x80\xE0\xBF\xBF\xE1\x80\x80\xEC\xBF\xBF",
       "\xE0\xA0\x80\xE0\xBF\xBF\xE1\x80\x80\xEC\xBF\xBF"},
      {"\xED\x80\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF",
       "\xED\x80\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
      {"\xF0\x90\x80\x80\xF1\x80\x80\x80\xF4\x8F\xBF\xBF",
       "\xF0\x90\x80\x80\xF1\x80\x80\x80\xF4\x8F\xBF\xBF"},
      // Bytes that begin nothing, overlong forms, surrogates, beyond U+10FFFF.
      {"\x80", r},
      {"\xC0\xAF\xC1\xBF", r + r + r + r},
      {"\xE0\x9F\xBF", r + r + r},
      {"\xED\xA0\x80", r + r + r},
      {"\xF0\x8F\xBF\xBF", r + r + r + r},
      {"\xF4\x90\x80\x80", r + r + r + r},
      {"\xF5\x80\xFF", r + r + r},
      // Sequences that break off: at the end, before ASCII, before another lead; also behind a full word.
      {"\xC2", r},
      {"\xE1\x80", r},
      {"\xF1\x80\x80", r},
      {"\xF1\x80\x80x\xE1\x80\xC3\xA9", r + "x" + r + "\xC3\xA9"},
      {"12345678\xE2\x82", "12345678" + r},
      {"\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64", "a" + r + r + r + "b" + r + "c" + r + r + "d"},
  };
  for (const auto& [bytes, repaired] : cases) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    EXPECT_EQ(isValidUtf8(bytes), bytes == repaired);
    EXPECT_EQ(repairedUtf8(bytes), repaired);
    // Wherever it stands against the eight bytes that are looked at together.
    for (std::size_t shift = 1; shift < 9; ++shift) {
      EXPECT_EQ(repairedUtf8(std::string(shift, '-') + bytes + "tail"),
                std::string(shift, '-') + repaired + "tail");
    }
  }
}

}  // namespace
}  // namespace larkspan::platform
