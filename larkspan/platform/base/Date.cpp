#include "larkspan/platform/base/Date.h"

#include "larkspan/platform/base/Clock.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace larkspan::platform {

namespace {

constexpr int64_t kReferenceDate = 978'307'200;  // 2001-01-01T00:00:00Z
constexpr int64_t kSecondsPerDay = 86'400;
constexpr int64_t kYear0 = -62'167'219'200;
constexpr int64_t kYear10000 = 253'402'300'800;

/// Days since 1970-01-01 of a proleptic Gregorian date, and back: the usual era arithmetic with years that
/// begin in March.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  return era * 146'097 + static_cast<int64_t>(yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear) -
         719'468;
}

struct Civil {
  int64_t year;
  unsigned month, day;
};

Civil civilFromDays(int64_t days) {
  days += 719'468;
  const int64_t era = (days >= 0 ? days : days - 146'096) / 146'097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146'097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shifted = (5 * dayOfYear + 2) / 153;
  const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
  return {yearOfEra + era * 400 + (month <= 2), month, dayOfYear - (153 * shifted + 2) / 5 + 1};
}

/// Takes `count` digits off the front; nothing when there are fewer.
std::optional<unsigned> takeDigits(std::string_view& text, std::size_t count) {
  if (text.size() < count) return std::nullopt;
  unsigned value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
  }
  text.remove_prefix(count);
  return value;
}

bool take(std::string_view& text, char a, char b) {
  if (text.empty() || (text[0] != a && text[0] != b)) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

Date Date::now() {
  const auto now = Clock::current().wallNow().count();
  int64_t whole = now / 1'000'000'000;
  int64_t rest = now % 1'000'000'000;
  if (rest < 0) {
    rest += 1'000'000'000;
    --whole;
  }
  return {whole, static_cast<uint32_t>(rest)};
}

Date Date::sinceReferenceDate(double interval) {
  if (std::isnan(interval)) return {kReferenceDate, 0};
  const double whole = std::floor(interval);
  constexpr double kLimit = 9.2e18;
  if (whole >= kLimit) return {std::numeric_limits<int64_t>::max(), 0};
  if (whole <= -kLimit) return {std::numeric_limits<int64_t>::min(), 0};
  auto rest = static_cast<uint32_t>((interval - whole) * 1e9 + 0.5);
  int64_t seconds = static_cast<int64_t>(whole) + kReferenceDate;
  if (rest == 1'000'000'000) {
    rest = 0;
    ++seconds;
  }
  return {seconds, rest};
}

double Date::timeIntervalSinceReferenceDate() const {
  return static_cast<double>(seconds) - static_cast<double>(kReferenceDate) + nanoseconds / 1e9;
}

std::optional<Date> Date::parse(std::string_view text) {
  const auto year = takeDigits(text, 4);
  if (!year || !take(text, '-', '-')) return std::nullopt;
  const auto month = takeDigits(text, 2);
  if (!month || *month < 1 || *month > 12 || !take(text, '-', '-')) return std::nullopt;
  const auto day = takeDigits(text, 2);
  if (!day || *day < 1 || !take(text, 'T', 't')) return std::nullopt;
  const auto hour = takeDigits(text, 2);
  if (!hour || *hour > 23 || !take(text, ':', ':')) return std::nullopt;
  const auto minute = takeDigits(text, 2);
  if (!minute || *minute > 59 || !take(text, ':', ':')) return std::nullopt;
  const auto second = takeDigits(text, 2);
  if (!second || *second > 60) return std::nullopt;
  uint32_t fraction = 0;
  if (take(text, '.', '.')) {
    uint32_t scale = 100'000'000;
    if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
    while (const auto digit = takeDigits(text, 1)) {
      fraction += *digit * scale;
      scale /= 10;
    }
  }
  int64_t offset = 0;
  if (!take(text, 'Z', 'z')) {
    const bool negative = !text.empty() && text[0] == '-';
    if (!take(text, '+', '-')) return std::nullopt;
    const auto hours = takeDigits(text, 2);
    if (!hours || *hours > 23 || !take(text, ':', ':')) return std::nullopt;
    const auto minutes = takeDigits(text, 2);
    if (!minutes || *minutes > 59) return std::nullopt;
    offset = (static_cast<int64_t>(*hours) * 60 + *minutes) * (negative ? -60 : 60);
  }
  const int64_t days = daysFromCivil(*year, *month, *day);
  if (!text.empty() || civilFromDays(days).day != *day) return std::nullopt;
  return Date{days * kSecondsPerDay + *hour * 3600 + *minute * 60 + *second - offset, fraction};
}

std::string Date::description() const {
  char text[48];
  if (seconds < kYear0 || seconds >= kYear10000) {
    std::snprintf(text, sizeof text, "@%lld", static_cast<long long>(seconds));
    return text;
  }
  int64_t days = seconds / kSecondsPerDay;
  int64_t rest = seconds % kSecondsPerDay;
  if (rest < 0) {
    rest += kSecondsPerDay;
    --days;
  }
  const Civil civil = civilFromDays(days);
  int length = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(civil.year),
                             civil.month, civil.day, static_cast<int>(rest / 3600),
                             static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
  if (nanoseconds != 0) {
    length +=
        std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length), ".%09u", nanoseconds);
    while (text[length - 1] == '0') --length;
  }
  return std::string(text, static_cast<std::size_t>(length)) + "Z";
}

}  // namespace larkspan::platform
