#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// A point in time, UTC without leap seconds, to the nanosecond.
struct Date {
  /// Whole seconds since 1970-01-01T00:00:00Z, rounded towards the past.
  int64_t seconds = 0;
  /// 0 to `kMostNanoseconds`.
  uint32_t nanoseconds = 0;
  static constexpr uint32_t kMostNanoseconds = 999'999'999;

  constexpr Date() = default;
  /// More nanoseconds than a second has count as `kMostNanoseconds`.
  constexpr Date(int64_t whole, uint32_t rest)
      : seconds(whole), nanoseconds(rest < kMostNanoseconds ? rest : kMostNanoseconds) {}

  /// The time of the current clock.
  static Date now();
  /// From seconds since the reference date, 2001-01-01T00:00:00Z; not a number reads as the reference date,
  /// and what lies beyond 64 bits saturates.
  static Date sinceReferenceDate(double seconds);
  /// Reads "2026-11-22T20:38:41.5Z", with any offset (RFC 3339); nothing when malformed. Decimals beyond the
  /// ninth are cut off; second 60 reads as the second after it.
  static std::optional<Date> parse(std::string_view rfc3339);

  /// Seconds since 2001-01-01T00:00:00Z.
  double timeIntervalSinceReferenceDate() const;
  /// RFC 3339 in UTC, with as many decimals as the date has; years outside 0 to 9999 print as "@SECONDS".
  std::string description() const;

  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace larkspan::platform
