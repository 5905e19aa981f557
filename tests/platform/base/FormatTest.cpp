#include "larkspan/platform/base/Format.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <string>

namespace larkspan::platform {
namespace {

TEST(Format, PrintsNumbersAsPrintfDoes) {
  const auto expect = [](const char* text, auto argument) {
    char expected[700];
    std::snprintf(expected, sizeof expected, text, argument);
    EXPECT_EQ(format(text, argument), expected) << text;
  };
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  for (const char* text : {"%d", "%5d|", "%-5d|", "%05d", "%+d", "% d", "%.3d", "%8.3i|"}) {
    expect(text, 42);
    expect(text, -7);
  }
  for (const char* text : {"%ld", "%lld", "%qd", "%jd", "%zd"})
    expect(text, std::numeric_limits<long>::min());
  for (const char* text : {"%lu", "%lx", "%#lX", "%lo", "%020lx"})
    expect(text, std::numeric_limits<unsigned long>::max());
  for (const char* text : {"%f", "%.2f", "%10.1f|", "%-10.1e|", "%E", "%g", "%G", "%a", "%+A", "%255.255f"}) {
    expect(text, 0.1);
    expect(text, -std::numeric_limits<double>::max());
  }
  expect("%c", 'x');
  expect("%p", static_cast<const void*>("x"));
#pragma GCC diagnostic pop
}

TEST(Format, PrintsWhateverAnArgumentIsAndMisreadsNone) {
  const std::optional<std::string> some = "text", none;
  const std::shared_ptr<Object> object = std::make_shared<Object>(), nobody;
  const std::vector<Value> values{1, "b"};
  EXPECT_EQ(format("%@ %s %@ %@", "a", std::string("b"), some, none), "a b text (null)");
  EXPECT_EQ(format("%@ %@ %@", static_cast<const char*>(nullptr), std::nullopt, nobody),
            "(null) (null) (null)");
  EXPECT_EQ(format("%@", object), object->description());
  EXPECT_EQ(format("%@ %@ %@ %@", true, -1, std::numeric_limits<uint64_t>::max(), 0.1),
            "true -1 18446744073709551615 0.1");
  EXPECT_EQ(format("%@ %@ %@", values, std::vector<Value>(), Value(Array{"", "x"})), "(1, b) () (, x)");
  EXPECT_EQ(format("%d %x %f", "a", 1.5, "c"), "a 1.5 c");
  EXPECT_EQ(format("%d %d %f %.1f %@", true, uint64_t{1} << 63, 2, -2, 'a'),
            "1 9223372036854775808 2.000000 -2.0 97");
  EXPECT_EQ(format("%2$@ %1$ld %2$@ %3$@ %@", 1, "b"), "b 1 b (null) 1");
  EXPECT_EQ(format("[%5@] [%-5s] [%05@]", "ab", "cd", 7), "[   ab] [cd   ] [    7]");
  EXPECT_EQ(format("%d", 1, 2), "1");
}

TEST(Format, LeavesWhatIsNoConversionAsItStands) {
  EXPECT_EQ(format("100%"), "100%");
  EXPECT_EQ(format("100%% %y %-5.3lk %*d"), "100% %y %-5.3lk %*d");
  EXPECT_EQ(format("%@ %5$d %999999999999$@"), "(null) (null) (null)");
  EXPECT_EQ(format("%999999999999d", 1).size(), 255u);
  EXPECT_EQ(format(std::string_view("a\0b%@", 5), "c"), std::string("a\0bc", 4));
}

}  // namespace
}  // namespace larkspan::platform
