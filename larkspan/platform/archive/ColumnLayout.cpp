#include "larkspan/platform/archive/ColumnLayout.h"

#include "larkspan/platform/archive/CommonPrefix.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace larkspan::platform {

namespace {

using Form = TableColumn::Form;

/// Of a string or URL.
std::string_view textOf(const Value& value) {
  const auto* const text = value.contentAs<Slice>();
  return text ? text->view() : value.contentAs<URL>()->absoluteString();
}

/// For numbers of so many bits: 1, 2, 4 or 8.
std::size_t bytesFor(std::size_t bits) { return std::bit_ceil(std::max<std::size_t>((bits + 7) / 8, 1)); }
/// For the number and those below it.
std::size_t unsignedWidth(uint64_t most) { return bytesFor(std::bit_width(most)); }
/// The bits of a two's complement which its sign does not tell.
uint64_t significantBits(int64_t value) { return static_cast<uint64_t>(value ^ value >> 63); }
/// For numbers that have these between them.
std::size_t signedWidth(uint64_t bits) { return bytesFor(std::bit_width(bits) + 1); }

/// Less, where it would end inside a character. A URL's ends behind a slash, never inside a %XX, so that readers judge it
/// once.
std::string_view wholePrefix(std::string_view text, std::size_t size, bool isUrl) {
  if (isUrl) return text.substr(0, text.substr(0, size).rfind('/') + 1);
  while (isInsideCharacter(text, size)) --size;
  return text.substr(0, size);
}

}  // namespace

void ColumnLayout::take(std::span<const Value* const> rows, std::size_t index) {
  form = Form::values;
  width = nanosecondWidth = rest = 0;
  prefix = {};
  const Value& first = rows.front()[index];
  // False when they are of different kinds.
  const auto each = [&](auto&& look) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const Value& value = rows[i][index];
      if (value.kind() != first.kind()) return false;
      look(value, i);
    }
    return true;
  };
  bool isOne = true;
  switch (first.kind()) {
    case Value::Kind::integer: {
      uint64_t bits = 0, changes = 0;
      const auto look = [&](const Value& value, std::size_t i) {
        const int64_t integer = integers[i] = *value.contentAs<int64_t>();
        bits |= significantBits(integer);
        changes |= static_cast<uint64_t>(integer ^ integers[0]);
      };
      if (!each(look)) return;
      isOne = changes == 0;
      form = Form::integers;
      width = signedWidth(bits);
      break;
    }
    case Value::Kind::string:
    case Value::Kind::url: {
      const bool isUrl = first.kind() == Value::Kind::url;
      const std::string_view one = textOf(first);
      std::string_view common = one;
      std::size_t longest = 0, all = 0;
      const auto look = [&](const Value& value, std::size_t i) {
        const std::string_view text = texts[i] = textOf(value);
        const bool isShared = text.data() == one.data() && text.size() == one.size();
        if (!isShared) common = common.substr(0, commonPrefix(common, text));
        longest = std::max(longest, text.size());
        all += text.size();
      };
      if (!each(look)) return;
      isOne = common.size() == longest;
      form = isUrl ? Form::urls : Form::texts;
      if (longest < kSharedLength) prefix = wholePrefix(one, common.size(), isUrl);
      width = unsignedWidth(longest - prefix.size());
      rest = all - prefix.size() * rows.size();
      break;
    }
    case Value::Kind::date: {
      uint64_t bits = 0, changes = 0;
      uint32_t most = 0;
      const auto look = [&](const Value& value, std::size_t i) {
        const Date& date = *value.contentAs<Date>();
        integers[i] = date.seconds;
        nanoseconds[i] = date.nanoseconds;
        bits |= significantBits(date.seconds);
        most = std::max(most, date.nanoseconds);
        changes |= static_cast<uint64_t>(date.seconds ^ integers[0]) | (date.nanoseconds ^ nanoseconds[0]);
      };
      if (!each(look)) return;
      isOne = changes == 0;
      form = Form::dates;
      width = signedWidth(bits);
      nanosecondWidth = unsignedWidth(most);
      break;
    }
    case Value::Kind::boolean: {
      const auto look = [&](const Value& value, std::size_t i) {
        integers[i] = *value.contentAs<bool>();
        isOne = isOne && integers[i] == integers[0];
      };
      if (!each(look)) return;
      form = Form::booleans;
      width = 1;
      break;
    }
    default:
      if (!each([&](const Value& value, std::size_t) { isOne = isOne && value == first; })) return;
  }
  if (!isOne) return;
  form = Form::same;
  width = nanosecondWidth = rest = 0;
  prefix = {};
}

}  // namespace larkspan::platform
