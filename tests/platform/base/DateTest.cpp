#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/UUID.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <set>
#include <tuple>

namespace larkspan::platform {
namespace {

TEST(Date, ReadsAndPrintsRFC3339) {
  // Text, seconds, nanoseconds, and how the date prints.
  // clang-format off
  const std::tuple<const char*, int64_t, uint32_t, const char*> cases[] = {
      {"1970-01-01T00:00:00Z", 0, 0, "1970-01-01T00:00:00Z"},
      {"1985-04-12T23:20:50.52Z", 482196050, 520000000, "1985-04-12T23:20:50.52Z"},
      {"1996-12-19T16:39:57-08:00", 851042397, 0, "1996-12-20T00:39:57Z"},
      {"1937-01-01T12:00:27.87+00:20", -1041337173, 870000000, "1937-01-01T11:40:27.87Z"},
      {"1990-12-31T23:59:60Z", 662688000, 0, "1991-01-01T00:00:00Z"},
      {"2000-02-29t12:00:00.1234567899z", 951825600, 123456789, "2000-02-29T12:00:00.123456789Z"},
      {"1969-12-31T23:59:59.000000001-00:00", -1, 1, "1969-12-31T23:59:59.000000001Z"},
      {"0000-01-01T00:00:00Z", -62167219200, 0, "0000-01-01T00:00:00Z"},
      {"0000-01-01T00:00:00+00:01", -62167219260, 0, "@-62167219260"},
      {"9999-12-31T23:59:59Z", 253402300799, 0, "9999-12-31T23:59:59Z"},
      {"9999-12-31T23:59:59-23:59", 253402387139, 0, "@253402387139"}};
  // clang-format on
  for (const auto& [text, seconds, nanoseconds, printed] : cases) {
    const auto date = Date::parse(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(*date, (Date{seconds, nanoseconds})) << text;
    EXPECT_EQ(date->description(), printed);
  }
  // clang-format off
  for (const char* text : {
         "", "2026", "2026-11-22", "2026-11-22 20:38:41Z", "2026-11-22T20:38:41", "2026-11-22T20:38Z",
         "2026-13-01T00:00:00Z", "2026-00-01T00:00:00Z", "2026-11-00T00:00:00Z", "2026-11-31T00:00:00Z",
         "2026-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2026-11-22T24:00:00Z", "2026-11-22T23:60:00Z",
         "2026-11-22T23:00:61Z", "2026-11-22T23:00:00.Z", "2026-11-22T23:00:00+0100",
         "2026-11-22T23:00:00+24:00", "2026-11-22T23:00:00+01:60", "2026-11-22T23:00:00ZZ",
         "2026-1-22T23:00:00Z", "+026-11-22T23:00:00Z"}) {
    // clang-format on
    EXPECT_FALSE(Date::parse(text)) << text;
  }
}

TEST(Date, AgreesWithTheCLibraryThroughFourCenturiesOfDays) {
  for (int64_t day = -400 * 366; day < 200 * 366; ++day) {
    const time_t seconds = day * 86400 + 86399;
    std::tm fields;
    char expected[64];
    strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&seconds, &fields));
    ASSERT_EQ((Date{seconds, 0}).description(), expected);
    ASSERT_EQ(Date::parse(expected), (Date{seconds, 0}));
  }
}

TEST(Date, CountsFromTheReferenceDateAndSaturates) {
  constexpr int64_t kReference = 978307200;
  constexpr auto kMinimum = std::numeric_limits<int64_t>::min(),
                 kMaximum = std::numeric_limits<int64_t>::max();
  // clang-format off
  const std::pair<double, Date> cases[] = {
      {0, {kReference, 0}}, {1.5, {kReference + 1, 500000000}}, {-0.25, {kReference - 1, 750000000}},
      {-1e-12, {kReference, 0}}, {std::nan(""), {kReference, 0}}, {1e300, {kMaximum, 0}}, {-INFINITY, {kMinimum, 0}}};
  // clang-format on
  for (const auto& [interval, date] : cases) EXPECT_EQ(Date::sinceReferenceDate(interval), date) << interval;
  EXPECT_EQ((Date{kReference - 1, 750000000}).timeIntervalSinceReferenceDate(), -0.25);
  EXPECT_EQ((Date{kMinimum, 0}).timeIntervalSinceReferenceDate(), -0x1p63 - 978307200);
  EXPECT_LT((Date{-1, 999999999}), (Date{0, 0}));
  EXPECT_GT(Date::now(), *Date::parse("2024-01-01T00:00:00Z"));
}

TEST(UUID, IsRandomOfVersionFour) {
  std::set<UUID> seen;
  for (int i = 0; i < 64; ++i) {
    const UUID uuid = UUID::random();
    EXPECT_TRUE(seen.insert(uuid).second);
    EXPECT_TRUE(uuid.bytes[6] >> 4 == 4 && uuid.bytes[8] >> 6 == 2) << uuid.description();
  }
  const UUID fixed{{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0, 1, 2, 3, 4, 5, 6, 0xFF}};
  EXPECT_EQ(fixed.description(), "01234567-89ab-cdef-0001-0203040506ff");
}

}  // namespace
}  // namespace larkspan::platform
