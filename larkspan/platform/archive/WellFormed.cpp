#include "larkspan/platform/archive/WellFormed.h"

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ClassSet.h"
#include "larkspan/platform/archive/URLCheck.h"
#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <string>

namespace larkspan::platform {

namespace {

constexpr uint16_t kNumber = ClassSet::bit(ValueClass::number);
constexpr uint16_t kString = ClassSet::bit(ValueClass::string);

/// memcmp(3) for the length of a key, which is mostly short and known to nobody before.
bool sameBytes(const char* a, const char* b, std::size_t size) {
  const auto differ = [&](std::size_t at) {
    uint64_t x, y;
    std::memcpy(&x, a + at, sizeof x);
    std::memcpy(&y, b + at, sizeof y);
    return x != y;
  };
  if (size < sizeof(uint64_t)) return std::memcmp(a, b, size) == 0;
  for (std::size_t at = 0; at + sizeof(uint64_t) < size; at += sizeof(uint64_t)) {
    if (differ(at)) return false;
  }
  return !differ(size - sizeof(uint64_t));
}

/// Walks an item once, with its own stack of what is open, and stops at the first fault.
///
/// What is common is quick: the maps of a message mostly have the keys of the map before at the same depth, in the same
/// order, so that one comparison stands for the check of a key; and their values mostly are of the few forms that
/// `passUsual` knows. All else, and all that is at fault, goes through `passHead`.
class Checker {
 public:
  Checker(std::string_view item, PlainMaps* plainMaps) : item_(item), plainMaps_(plainMaps) {}

  std::size_t elements() const { return elements_; }

  std::optional<Error> run() {
    if (item_.size() > limits::kMaximumFrame) {
      return archiveError(ArchiveErrorCode::tooLarge,
                          "More than " + std::to_string(limits::kMaximumFrame) + " bytes");
    }
    while (passHead() && !closeFinished()) {
    }
    if (!fault_ && at_ != item_.size()) fail(ArchiveErrorCode::malformed, "Bytes follow the item", at_);
    return std::move(fault_);
  }

 private:
  enum class ObjectPart : uint8_t { none, tag, pair, fields };
  /// A container or tag that still lacks items.
  struct Level {
    uint64_t itemsLeft;
    uint32_t entries;
    uint32_t start;
    uint32_t firstElement;
    /// Where the keys of this map begin in `keys_`.
    uint32_t firstKey;
    /// How many plain maps were found before this level.
    uint32_t firstPlain;
    /// One bit for each hash of a key met.
    uint64_t keyBits;
    uint16_t kinds;
    uint8_t levels;
    bool isMap;
    bool isExtendedTime;
    /// A map beneath tag 1001.
    bool allowsIntegerKeys;
    /// Too many keys to compare each with each: sorted when the map ends.
    bool isLarge;
    bool isTag;
    /// What an object of tag 27 consists of: the map of its fields is no dictionary.
    ObjectPart part;
    bool isPlain;
    /// All keys so far were those of the map before at this depth.
    bool followsShape;
  };
  struct KeyPlace {
    uint32_t offset;
    uint32_t length;
  };
  static constexpr uint64_t kLargeMap = 24;
  /// The keys of the last map at one depth.
  struct Shape {
    uint32_t size = 0;
    struct Key {
      uint32_t head;
      KeyPlace text;
      uint64_t bit;
    };
    std::array<Key, kLargeMap> keys;
  };

  bool fail(ArchiveErrorCode code, std::string_view text, std::size_t offset) {
    fault_ = archiveError(code, text, offset);
    return false;
  }
  bool truncated(std::size_t start) {
    return fail(ArchiveErrorCode::truncated, "The bytes end inside an item", start);
  }

  /// Passes a head and, of strings, the content; false at a fault.
  bool passHead() {
    const std::size_t start = at_;
    if (start == item_.size()) return truncated(start);
    if (++elements_ > limits::kMaximumElements) return tooMany(start);
    const auto initial = static_cast<uint8_t>(item_[at_++]);
    const auto major = static_cast<CborMajor>(initial >> 5);
    const unsigned info = initial & 31;
    uint64_t argument = info;
    if (info >= 24) {
      if (info == 31) return fail(ArchiveErrorCode::malformed, "An item of indefinite length", start);
      if (info > 27) return fail(ArchiveErrorCode::malformed, "A reserved head", start);
      const std::size_t size = std::size_t{1} << (info - 24);
      if (item_.size() - at_ < size) return truncated(start);
      argument = detail::loadBigEndian(item_.data() + at_, size);
      at_ += size;
    }

    Level* const around = depth_ > 0 ? &levels_[depth_ - 1] : nullptr;
    const bool isKey = around && around->isMap && around->itemsLeft % 2 == 0;
    if (isKey && major != CborMajor::text &&
        !(around->allowsIntegerKeys && major <= CborMajor::negativeInteger)) {
      return fail(ArchiveErrorCode::malformed, "A map key that is not text", start);
    }

    const std::size_t rest = item_.size() - at_;
    uint16_t kind = 0;
    switch (major) {
      case CborMajor::unsignedInteger:
      case CborMajor::negativeInteger:
        if (argument > std::numeric_limits<int64_t>::max()) {
          return fail(ArchiveErrorCode::malformed, "An integer that does not fit 64 bits", start);
        }
        kind = kNumber;
        break;
      case CborMajor::bytes:
      case CborMajor::text:
        if (argument > rest) return truncated(start);
        if (major == CborMajor::text && !isValidUtf8(item_.substr(at_, argument))) {
          return fail(ArchiveErrorCode::invalidUtf8, "Text that is not UTF-8", start);
        }
        at_ += argument;
        kind = major == CborMajor::text ? kString : ClassSet::bit(ValueClass::data);
        break;
      case CborMajor::array:
        return argument > rest ? truncated(start) : open(argument, major, start);
      case CborMajor::map:
        return argument > rest / 2 ? truncated(start) : open(2 * argument, major, start);
      case CborMajor::tag: {
        if (!open(1, major, start)) return false;
        levels_[depth_ - 1].isExtendedTime = argument == static_cast<uint64_t>(CborTag::extendedTime);
        if (argument == static_cast<uint64_t>(CborTag::object)) levels_[depth_ - 1].part = ObjectPart::tag;
        return true;
      }
      case CborMajor::simple:
        if (info < 20 || info == 23 || info == 24) {
          return fail(ArchiveErrorCode::malformed, "A simple value other than false, true and null", start);
        }
        if (info != 22) kind = kNumber;
        break;
    }
    if (isKey) {
      around->followsShape = false;
      // Where keys may be integers they are compared with their heads, which tell an integer from a text.
      if (!noteKey(*around, around->allowsIntegerKeys ? start : at_ - argument)) return false;
    } else if (around) {
      around->kinds |= kind;
    }
    if (around) --around->itemsLeft;
    return true;
  }

  bool tooMany(std::size_t start) {
    return fail(ArchiveErrorCode::tooManyElements,
                "More than " + std::to_string(limits::kMaximumElements) + " items", start);
  }

  bool open(uint64_t items, CborMajor major, std::size_t start) {
    if (depth_ == limits::kMaximumDepth) {
      return fail(ArchiveErrorCode::tooDeep,
                  "More than " + std::to_string(limits::kMaximumDepth) + " levels of nesting", start);
    }
    if (items > limits::kMaximumElements - elements_) return tooMany(start);
    const bool isMap = major == CborMajor::map;
    bool beneathTime = false;
    auto part = ObjectPart::none;
    if (depth_ > 0) {
      Level& around = levels_[depth_ - 1];
      --around.itemsLeft;
      beneathTime = around.isExtendedTime;
      if (around.part == ObjectPart::tag) part = ObjectPart::pair;
      if (around.part == ObjectPart::pair) part = ObjectPart::fields;
    }
    const bool isTag = major == CborMajor::tag;
    const bool allowsIntegerKeys = isMap && beneathTime;
    const bool isLarge = items > 2 * kLargeMap;
    levels_[depth_++] = {.itemsLeft = items,
                         .entries = static_cast<uint32_t>(items / 2),
                         .start = static_cast<uint32_t>(start),
                         .firstElement = static_cast<uint32_t>(elements_),
                         .firstKey = static_cast<uint32_t>(keys_.size()),
                         .firstPlain = static_cast<uint32_t>(plainMaps_ ? plainMaps_->size() : 0),
                         .keyBits = 0,
                         .kinds = 0,
                         .levels = 1,
                         .isMap = isMap,
                         .isExtendedTime = false,
                         .allowsIntegerKeys = allowsIntegerKeys,
                         .isLarge = isLarge,
                         .isTag = isTag,
                         .part = part,
                         .isPlain = !isTag,
                         .followsShape = isMap && !allowsIntegerKeys && !isLarge};
    return true;
  }

  /// Passes entries of a map, or members of an array, as long as they are of a usual form.
  void passUsual(Level& level) {
    if (level.isTag) return;
    while (level.itemsLeft > 0) {
      if (level.isMap && level.itemsLeft % 2 == 0 && !passUsualKey(level)) return;
      if (!passUsualValue(level)) return;
      --level.itemsLeft;
    }
  }

  /// Passes a key that stood at this place in the map before.
  bool passUsualKey(Level& level) {
    if (!level.followsShape) return false;
    const Shape& shape = shapes_[depth_ - 1];
    const std::size_t index = level.entries - level.itemsLeft / 2;
    if (index >= shape.size) return false;
    const Shape::Key& key = shape.keys[index];
    const std::size_t size = key.text.offset + key.text.length - key.head;
    if (item_.size() - at_ < size || elements_ >= limits::kMaximumElements ||
        !sameBytes(item_.data() + at_, item_.data() + key.head, size)) {
      return false;
    }
    at_ += size;
    ++elements_;
    --level.itemsLeft;
    level.keyBits |= key.bit;
    keys_.push_back(key.text);
    return true;
  }

  /// Passes a value that opens nothing, or a date or URL, if it stands far enough from all limits; else false, without
  /// having moved: it may be of another form, or at fault.
  bool passUsualValue(Level& level) {
    constexpr std::size_t kLongestDate = 3 + 1 + 1 + 9 + 1 + 5;
    constexpr std::size_t kMostElements = 6;
    const std::size_t rest = item_.size() - at_;
    if (rest < kLongestDate || elements_ + kMostElements > limits::kMaximumElements) return false;
    const char* const bytes = item_.data() + at_;
    const auto first = static_cast<uint8_t>(bytes[0]);
    switch (static_cast<CborMajor>(first >> 5)) {
      case CborMajor::unsignedInteger:
      case CborMajor::negativeInteger: {
        const std::ptrdiff_t size = integerSize(bytes);
        return size > 0 && pass(level, kNumber, size, 1);
      }
      case CborMajor::text: {
        const std::string_view text = usualText(bytes, rest);
        return text.data() && pass(level, kString, text.data() + text.size() - bytes, 1);
      }
      case CborMajor::simple:
        if (first == 0xF6) return pass(level, 0, 1, 1);
        if (first == 0xF4 || first == 0xF5) return pass(level, kNumber, 1, 1);
        if (first == 0xFB) return pass(level, kNumber, 9, 1);
        return false;
      case CborMajor::tag:
        if (first == 0xD8 && bytes[1] == static_cast<char>(CborTag::uri)) {
          const std::string_view text = usualText(bytes + 2, rest - 2);
          if (!text.data() || depth_ + 1 > limits::kMaximumDepth || !url_.isWellFormed(text)) return false;
          noteLevels(level, 1);
          return pass(level, ClassSet::bit(ValueClass::url), text.data() + text.size() - bytes, 2);
        }
        if (first == 0xD9 && bytes[1] == '\x03' && bytes[2] == '\xE9') return passDate(level, bytes);
        return false;
      default:
        return false;
    }
  }

  /// Tag 1001 over {1: seconds} or {1: seconds, -9: nanoseconds}.
  bool passDate(Level& level, const char* bytes) {
    if (depth_ + 2 > limits::kMaximumDepth || bytes[4] != '\x01') return false;
    const bool isWhole = bytes[3] == '\xA1';
    if (!isWhole && bytes[3] != '\xA2') return false;
    std::ptrdiff_t size = 5;
    const std::ptrdiff_t seconds = integerSize(bytes + size);
    if (seconds == 0) return false;
    size += seconds;
    if (!isWhole) {
      const std::ptrdiff_t nanoseconds = bytes[size] == '\x28' ? integerSize(bytes + size + 1) : 0;
      if (nanoseconds == 0 || nanoseconds > 5) return false;
      const char* const digits = bytes + size + 1;
      const uint64_t value =
          nanoseconds == 1 ? static_cast<uint8_t>(*digits)
                           : detail::loadBigEndian(digits + 1, static_cast<std::size_t>(nanoseconds - 1));
      if ((static_cast<uint8_t>(*digits) >> 5) != 0 || value > Date::kMostNanoseconds) return false;
      size += 1 + nanoseconds;
    }
    noteLevels(level, 2);
    return pass(level, ClassSet::bit(ValueClass::date), size, isWhole ? 4 : 6);
  }

  bool pass(Level& level, uint16_t kind, std::ptrdiff_t size, std::size_t elements) {
    at_ += static_cast<std::size_t>(size);
    elements_ += elements;
    level.kinds |= kind;
    return true;
  }

  static void noteLevels(Level& level, unsigned within) {
    level.levels = std::max(level.levels, static_cast<uint8_t>(1 + within));
  }

  /// Bytes of an integer that fits 64 bits signed, or 0; nine bytes must be there.
  static std::ptrdiff_t integerSize(const char* bytes) {
    const unsigned info = static_cast<uint8_t>(bytes[0]) & 31;
    if (static_cast<uint8_t>(bytes[0]) >> 6 != 0 || info > 27) return 0;
    if (info < 24) return 1;
    if (info == 27 && (bytes[1] & 0x80) != 0) return 0;
    return 1 + (std::ptrdiff_t{1} << (info - 24));
  }

  /// The text whose head is at `bytes`, without data when it is none, or at fault, or long; three bytes must be there.
  static std::string_view usualText(const char* bytes, std::size_t rest) {
    const auto first = static_cast<uint8_t>(bytes[0]);
    std::size_t head = 1;
    std::size_t length = first & 31;
    if (first == 0x78) {
      head = 2;
      length = static_cast<uint8_t>(bytes[1]);
    } else if (first == 0x79) {
      head = 3;
      length = detail::loadBigEndian(bytes + 1, 2);
    } else if (first < 0x60 || first > 0x77) {
      return {};
    }
    const std::string_view text(bytes + head, length);
    return length <= rest - head && isValidUtf8(text) ? text : std::string_view();
  }

  /// Goes on with what is usual and ends what has all its items; true when the whole item has ended or at a fault.
  bool closeFinished() {
    while (depth_ > 0) {
      Level& level = levels_[depth_ - 1];
      passUsual(level);
      if (level.itemsLeft > 0) return false;
      if (level.isMap && !closeMap(level)) return true;
      if (--depth_ == 0) break;
      Level& around = levels_[depth_ - 1];
      around.isPlain = around.isPlain && level.isPlain;
      around.kinds |= level.kinds;
      around.kinds |= ClassSet::bit(level.isMap ? ValueClass::dictionary : ValueClass::array);
      noteLevels(around, level.levels);
    }
    return true;
  }

  bool closeMap(const Level& level) {
    if (level.isLarge && !keysDiffer(level)) return false;
    if (level.isPlain && level.part != ObjectPart::fields && !level.allowsIntegerKeys && plainMaps_ &&
        level.entries > 0) {
      plainMaps_->resize(level.firstPlain);
      plainMaps_->push_back({level.start, static_cast<uint32_t>(at_), level.entries,
                             static_cast<uint32_t>(elements_ + 1 - level.firstElement), level.keyBits,
                             level.kinds, level.levels});
    }
    if (!level.followsShape && !level.isLarge && !level.allowsIntegerKeys) {
      Shape& shape = shapes_[depth_ - 1];
      shape.size = level.entries;
      for (uint32_t i = 0; i < level.entries; ++i) {
        const KeyPlace text = keys_[level.firstKey + i];
        const uint32_t head = text.length < 24 ? 1 : text.length < 256 ? 2 : text.length < 65536 ? 3 : 5;
        // A key with a longer head than necessary is not taken for a pattern.
        if (static_cast<uint8_t>(item_[text.offset - head]) >> 5 != static_cast<uint8_t>(CborMajor::text)) {
          shape.size = i;
          break;
        }
        shape.keys[i] = {text.offset - head, text, keyBit(textOf(text))};
      }
    }
    keys_.resize(level.firstKey);
    return true;
  }

  std::string_view textOf(KeyPlace key) const { return {item_.data() + key.offset, key.length}; }

  bool noteKey(Level& level, std::size_t offset) {
    const KeyPlace key{static_cast<uint32_t>(offset), static_cast<uint32_t>(at_ - offset)};
    const uint64_t bit = keyBit(textOf(key));
    if (!level.isLarge && (level.keyBits & bit) != 0) {
      for (std::size_t i = level.firstKey; i < keys_.size(); ++i) {
        if (textOf(keys_[i]) == textOf(key)) return duplicate(key);
      }
    }
    level.keyBits |= bit;
    keys_.push_back(key);
    return true;
  }

  bool keysDiffer(const Level& level) {
    const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(level.firstKey);
    std::sort(first, keys_.end(), [this](KeyPlace a, KeyPlace b) {
      return a.length != b.length ? a.length < b.length : textOf(a) < textOf(b);
    });
    const auto twice = std::adjacent_find(first, keys_.end(),
                                          [this](KeyPlace a, KeyPlace b) { return textOf(a) == textOf(b); });
    return twice == keys_.end() || duplicate(twice[0].offset < twice[1].offset ? twice[1] : twice[0]);
  }

  bool duplicate(KeyPlace key) {
    return fail(ArchiveErrorCode::duplicateKey, "A key that its map holds already", key.offset);
  }

  const std::string_view item_;
  PlainMaps* const plainMaps_;
  std::size_t at_ = 0;
  std::size_t elements_ = 0;
  unsigned depth_ = 0;
  std::array<Level, limits::kMaximumDepth> levels_;
  std::array<Shape, limits::kMaximumDepth> shapes_;
  URLCheck url_;
  /// Of the maps that are open, innermost last.
  std::vector<KeyPlace> keys_;
  std::optional<Error> fault_;
};

}  // namespace

std::optional<Error> checkWellFormed(std::string_view item, PlainMaps* plainMaps, std::size_t* elements) {
  if (plainMaps) plainMaps->clear();
  Checker checker(item, plainMaps);
  auto fault = checker.run();
  if (elements) *elements = checker.elements();
  return fault;
}

}  // namespace larkspan::platform
