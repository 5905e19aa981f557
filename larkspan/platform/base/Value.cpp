#include "larkspan/platform/base/Value.h"

#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>

namespace larkspan::platform {

namespace {

/// Deeper values print as an ellipsis: an item may hold itself.
constexpr int kDescriptionDepth = 32;

/// How many descriptions or copies are under way on this thread, through objects too.
struct Nesting {
  static inline thread_local int current = 0;
  const int depth = ++current;
  ~Nesting() { --current; }
};

int64_t saturated(double number) {
  if (std::isnan(number)) return 0;
  if (number >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (number < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(number);
}

/// With as few digits as read back as the same number.
template <typename T>
std::string describeFloat(T number) {
  char text[40];
  for (int digits = std::numeric_limits<T>::digits10; digits <= std::numeric_limits<T>::max_digits10;
       ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(number));
    if (static_cast<T>(std::strtod(text, nullptr)) == number) break;
  }
  return text;
}

std::strong_ordering orderAll(const Value* a, const Value* aEnd, const Value* b, const Value* bEnd) {
  return std::lexicographical_compare_three_way(a, aEnd, b, bEnd,
                                                [](const Value& x, const Value& y) { return order(x, y); });
}

std::strong_ordering orderEntries(const Dictionary& a, const Dictionary& b) {
  const auto left = sortedEntries(a);
  const auto right = sortedEntries(b);
  return std::lexicographical_compare_three_way(left.begin(), left.end(), right.begin(), right.end(),
                                                [](const auto& x, const auto& y) {
                                                  const auto byKey = x.first <=> y.first;
                                                  return byKey != 0 ? byKey : order(*x.second, *y.second);
                                                });
}

}  // namespace

const PackedMembers* packedIn(const Value& value) {
  const auto* const object = value.contentAs<std::shared_ptr<Object>>();
  return object ? dynamic_cast<const PackedMembers*>(object->get()) : nullptr;
}

namespace {

/// Neighbours out of the middle of others.
class PackedPart final : public PackedMembers {
 public:
  PackedPart(Value whole, std::size_t start, std::size_t size)
      : whole_(std::move(whole)), members_(*packedIn(whole_)), start_(start), size_(size) {}

  std::size_t size() const override { return size_; }
  const std::shared_ptr<Object>& object(std::size_t index) const override {
    return members_.object(start_ + index);
  }

 private:
  const Value whole_;
  const PackedMembers& members_;
  const std::size_t start_;
  const std::size_t size_;
};

}  // namespace

struct Array::Storage {
  const std::vector<Value> values;
  const std::size_t size;  // With what is packed in them.
  const bool isPacked;
  mutable std::once_flag unpacking{};
  mutable std::vector<Value> unpacked{};

  Storage(std::vector<Value> members, std::size_t count, bool packed)
      : values(std::move(members)), size(count), isPacked(packed) {}
};

Array::Array(std::vector<Value> values) {
  const std::size_t size = values.size();
  if (size > 0) storage_ = std::make_shared<const Storage>(std::move(values), size, false);
}
Array::Array(std::initializer_list<Value> values) : Array(std::vector<Value>(values)) {}
Array Array::withPacked(std::vector<Value> values) {
  std::size_t size = 0;
  for (const Value& value : values) {
    const PackedMembers* const members = packedIn(value);
    size += members ? members->size() : 1;
  }
  return Array(std::make_shared<const Storage>(std::move(values), size, true));
}

std::span<const Value> Array::packed() const {
  return storage_ ? std::span<const Value>(storage_->values) : std::span<const Value>();
}

Array Array::part(std::size_t start, std::size_t size) const {
  const std::span<const Value> members = packed();
  if (members.size() == 1 && packedIn(members.front()))
    return withPacked({std::make_shared<PackedPart>(members.front(), start, size)});
  return std::vector<Value>(begin() + start, begin() + start + size);
}

std::span<const Value> Array::values() const {
  if (!storage_ || !storage_->isPacked) return packed();
  std::call_once(storage_->unpacking, [this] {
    std::vector<Value> unpacked;
    unpacked.reserve(storage_->size);
    for (const Value& value : storage_->values) {
      const PackedMembers* const members = packedIn(value);
      if (!members) unpacked.push_back(value);
      for (std::size_t i = 0; members && i < members->size(); ++i) unpacked.emplace_back(members->object(i));
    }
    storage_->unpacked = std::move(unpacked);
  });
  return storage_->unpacked;
}

std::size_t Array::size() const { return storage_ ? storage_->size : 0; }
const Value& Array::operator[](std::size_t index) const { return values()[index]; }
const Value* Array::begin() const { return values().data(); }
const Value* Array::end() const { return values().data() + values().size(); }
bool operator==(const Array& a, const Array& b) {
  return a.storage_ == b.storage_ || std::equal(a.begin(), a.end(), b.begin(), b.end());
}

Set::Set(std::vector<Value> values) {
  std::sort(values.begin(), values.end(), [](const Value& a, const Value& b) { return order(a, b) < 0; });
  const auto same = [](const Value& a, const Value& b) { return order(a, b) == 0; };
  values.erase(std::unique(values.begin(), values.end(), same), values.end());
  members_ = Array(std::move(values));
}

bool operator==(const Set& a, const Set& b) {
  return orderAll(a.members_.begin(), a.members_.end(), b.members_.begin(), b.members_.end()) == 0;
}

bool Set::contains(const Value& value) const {
  return std::binary_search(members_.begin(), members_.end(), value,
                            [](const Value& a, const Value& b) { return order(a, b) < 0; });
}

Value::Value(std::string_view text)
    : content_(isValidUtf8(text) ? Slice::copy(text) : Slice::copy(repairedUtf8(text))) {}

Value Value::wellFormed(Slice text) {
  Value result;
  result.content_ = std::move(text);
  return result;
}

bool Value::boolValue() const {
  if (const auto* number = std::get_if<float>(&content_)) return *number != 0;
  if (const auto* number = std::get_if<double>(&content_)) return *number != 0;
  return integerValue() != 0;
}

int64_t Value::convertedInteger() const {
  switch (kind()) {
    case Kind::boolean:
      return std::get<bool>(content_) ? 1 : 0;
    case Kind::float32:
      return saturated(static_cast<double>(std::get<float>(content_)));
    case Kind::float64:
      return saturated(std::get<double>(content_));
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  if (const auto* number = std::get_if<float>(&content_)) return static_cast<double>(*number);
  if (const auto* number = std::get_if<double>(&content_)) return *number;
  return static_cast<double>(integerValue());
}

std::optional<std::string> Value::string() const {
  if (kind() != Kind::string) return std::nullopt;
  return std::string(text());
}

std::string_view Value::text() const& {
  const Slice* slice = std::get_if<Slice>(&content_);
  return slice ? slice->view() : std::string_view();
}

std::vector<std::string> Value::strings() const {
  std::vector<std::string> result;
  for (const Value& member : array()) {
    if (member.kind() == Kind::string) result.emplace_back(member.text());
  }
  return result;
}

std::string Value::description() const {
  const Nesting nesting;
  if (nesting.depth > kDescriptionDepth) return "…";
  const auto list = [&](const Array& array, const char* open, const char* close) {
    std::string text = open;
    for (const Value& member : array) {
      if (&member != array.begin()) text += ", ";
      text += member.description();
    }
    return text + close;
  };
  switch (kind()) {
    case Kind::none:
      return "(null)";
    case Kind::boolean:
      return std::get<bool>(content_) ? "true" : "false";
    case Kind::integer:
      return std::to_string(std::get<int64_t>(content_));
    case Kind::float32:
      return describeFloat(std::get<float>(content_));
    case Kind::float64:
      return describeFloat(std::get<double>(content_));
    case Kind::string:
      return std::string(text());
    case Kind::data:
      return "{" + std::to_string(std::get<Data>(content_).bytes.size()) + " bytes}";
    case Kind::date:
      return std::get<Date>(content_).description();
    case Kind::url:
      return std::get<URL>(content_).description();
    case Kind::array:
      return list(std::get<Array>(content_), "(", ")");
    case Kind::set:
      return list(std::get<Set>(content_).members(), "{", "}");
    case Kind::error:
      return std::get<Error>(content_).description();
    case Kind::object:
      return std::get<std::shared_ptr<Object>>(content_)->description();
    case Kind::dictionary: {
      std::string text = "{";
      for (const auto& entry : std::get<Dictionary>(content_)) {
        if (text.size() > 1) text += ", ";
        text.append(entry.key()).append(" = ").append(entry.value.description());
      }
      return text + "}";
    }
  }
  return {};
}

Value Value::deepCopy() const {
  // What nests deeper cannot be archived anyway, and an item may hold itself.
  const Nesting nesting;
  if (nesting.depth > static_cast<int>(limits::kMaximumDepth)) return *this;
  const auto copied = [](const Array& array) {
    std::vector<Value> members;
    members.reserve(array.size());
    for (const Value& member : array) members.push_back(member.deepCopy());
    return members;
  };
  switch (kind()) {
    case Kind::array:
      return Array(copied(std::get<Array>(content_)));
    case Kind::set:
      return Set(copied(std::get<Set>(content_).members()));
    case Kind::dictionary:
      return std::get<Dictionary>(content_).deepCopy();
    case Kind::object: {
      auto copy = std::get<std::shared_ptr<Object>>(content_)->deepCopy();
      return copy ? Value(std::move(copy)) : *this;
    }
    default:
      return *this;
  }
}

bool operator==(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Value::Kind::array:
      return std::get<Array>(a.content_) == std::get<Array>(b.content_);
    case Value::Kind::set:
      return std::get<Set>(a.content_) == std::get<Set>(b.content_);
    case Value::Kind::dictionary:
      return std::get<Dictionary>(a.content_) == std::get<Dictionary>(b.content_);
    case Value::Kind::error:
      return std::get<Error>(a.content_) == std::get<Error>(b.content_);
    case Value::Kind::object:
      return a.object()->isEqual(*b.object());
    default:
      return order(a, b) == 0;
  }
}

std::strong_ordering order(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) return a.kind() <=> b.kind();
  switch (a.kind()) {
    case Value::Kind::none:
      return std::strong_ordering::equal;
    case Value::Kind::boolean:
    case Value::Kind::integer:
      return a.integerValue() <=> b.integerValue();
    case Value::Kind::float32:
      return std::bit_cast<uint32_t>(std::get<float>(a.content_)) <=>
             std::bit_cast<uint32_t>(std::get<float>(b.content_));
    case Value::Kind::float64:
      return std::bit_cast<uint64_t>(std::get<double>(a.content_)) <=>
             std::bit_cast<uint64_t>(std::get<double>(b.content_));
    case Value::Kind::string:
      return a.text() <=> b.text();
    case Value::Kind::data:
      return std::get<Data>(a.content_).view() <=> std::get<Data>(b.content_).view();
    case Value::Kind::date:
      return std::get<Date>(a.content_) <=> std::get<Date>(b.content_);
    case Value::Kind::url:
      return std::get<URL>(a.content_) <=> std::get<URL>(b.content_);
    case Value::Kind::set:
    case Value::Kind::array: {
      const Array& left =
          a.kind() == Value::Kind::set ? std::get<Set>(a.content_).members() : std::get<Array>(a.content_);
      const Array& right =
          b.kind() == Value::Kind::set ? std::get<Set>(b.content_).members() : std::get<Array>(b.content_);
      return orderAll(left.begin(), left.end(), right.begin(), right.end());
    }
    case Value::Kind::dictionary:
      return orderEntries(std::get<Dictionary>(a.content_), std::get<Dictionary>(b.content_));
    case Value::Kind::error: {
      const Error& left = std::get<Error>(a.content_);
      const Error& right = std::get<Error>(b.content_);
      if (left.domain() != right.domain()) return left.domain() <=> right.domain();
      if (left.code() != right.code()) return left.code() <=> right.code();
      return orderEntries(left.userInfo(), right.userInfo());
    }
    case Value::Kind::object:
      return std::compare_three_way()(std::get<std::shared_ptr<Object>>(a.content_).get(),
                                      std::get<std::shared_ptr<Object>>(b.content_).get());
  }
  return std::strong_ordering::equal;
}

}  // namespace larkspan::platform
