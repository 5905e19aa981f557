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

ColumnLayout ColumnLayout::of(std::span<const Value* const> rows, std::size_t index) {
  const Value& first = rows.front()[index];
  // False when they are of different kinds.
  const auto each = [&](auto&& look) {
    for (const Value* const row : rows) {
      if (row[index].kind() != first.kind()) return false;
      look(row[index]);
    }
    return true;
  };
  bool isOne = true;
  ColumnLayout layout;
  switch (first.kind()) {
    case Value::Kind::integer: {
      const int64_t one = *first.contentAs<int64_t>();
      uint64_t bits = 0;
      const auto look = [&](const Value& value) {
        const int64_t integer = *value.contentAs<int64_t>();
        bits |= significantBits(integer);
        isOne = isOne && integer == one;
      };
      if (!each(look)) return {};
      layout = {.form = Form::integers, .width = signedWidth(bits)};
      break;
    }
    case Value::Kind::string:
    case Value::Kind::url: {
      const bool isUrl = first.kind() == Value::Kind::url;
      const std::string_view one = textOf(first);
      std::string_view common = one;
      std::size_t longest = 0, all = 0;
      const auto look = [&](const Value& value) {
        const std::string_view text = textOf(value);
        const bool isShared = text.data() == one.data() && text.size() == one.size();
        if (!isShared && !text.starts_with(common)) common = common.substr(0, commonPrefix(common, text));
        longest = std::max(longest, text.size());
        all += text.size();
      };
      if (!each(look)) return {};
      isOne = common.size() == longest;
      const std::string_view prefix =
          longest < kSharedLength ? wholePrefix(one, common.size(), isUrl) : std::string_view();
      layout = {.form = isUrl ? Form::urls : Form::texts,
                .width = unsignedWidth(longest - prefix.size()),
                .prefix = prefix,
                .rest = all - prefix.size() * rows.size()};
      break;
    }
    case Value::Kind::date: {
      const Date one = *first.contentAs<Date>();
      uint64_t bits = 0;
      uint32_t nanoseconds = 0;
      const auto look = [&](const Value& value) {
        const Date& date = *value.contentAs<Date>();
        bits |= significantBits(date.seconds);
        nanoseconds = std::max(nanoseconds, date.nanoseconds);
        isOne = isOne && date == one;
      };
      if (!each(look)) return {};
      layout = {
          .form = Form::dates, .width = signedWidth(bits), .nanosecondWidth = unsignedWidth(nanoseconds)};
      break;
    }
    case Value::Kind::boolean:
      // Quicker than `==` of values.
      if (!each([&, one = *first.contentAs<bool>()](const Value& value) {
            isOne = isOne && *value.contentAs<bool>() == one;
          }))
        return {};
      layout = {.form = Form::booleans, .width = 1};
      break;
    default:
      if (!each([&](const Value& value) { isOne = isOne && value == first; })) return {};
  }
  return isOne ? ColumnLayout{.form = Form::same} : layout;
}

}  // namespace larkspan::platform
