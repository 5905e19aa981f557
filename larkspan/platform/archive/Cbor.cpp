#include "larkspan/platform/archive/Cbor.h"

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <vector>

namespace larkspan::platform {

namespace {

constexpr std::size_t kLongestHead = 9;

/// Writes `size` bytes, most significant first.
void storeBigEndian(char* to, uint64_t value, std::size_t size) {
  for (std::size_t i = size; i-- > 0; value >>= 8) to[i] = static_cast<char>(value);
}

/// The shortest head of RFC 8949, section 3; answers its length.
std::size_t encodeHead(char (&head)[kLongestHead], CborMajor major, uint64_t argument) {
  const auto first = [&](unsigned info) {
    return static_cast<char>(static_cast<unsigned>(major) << 5 | info);
  };
  if (argument < 24) {
    head[0] = first(static_cast<unsigned>(argument));
    return 1;
  }
  const unsigned exponent = argument <= 0xFF ? 0 : argument <= 0xFFFF ? 1 : argument <= 0xFFFFFFFF ? 2 : 3;
  head[0] = first(24 + exponent);
  storeBigEndian(head + 1, argument, std::size_t{1} << exponent);
  return 1 + (std::size_t{1} << exponent);
}

/// Walks an item once, with its own stack of what is open, and stops at the first fault.
class Checker {
 public:
  explicit Checker(std::string_view item) : item_(item) {}

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
  /// A container or tag that still lacks items.
  struct Level {
    uint64_t itemsLeft;
    /// Where the keys of this map begin in `keys_`.
    std::size_t firstKey;
    /// One bit for each hash of a key met, in maps that are searched.
    uint64_t keyHashes;
    bool isMap;
    bool isExtendedTime;
    /// A map beneath tag 1001.
    bool allowsIntegerKeys;
    /// Too many keys to compare each with each: sorted when the map ends.
    bool isLarge;
  };
  struct KeyPlace {
    uint32_t offset;
    uint32_t length;
  };
  static constexpr uint64_t kLargeMap = 24;

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
    switch (major) {
      case CborMajor::unsignedInteger:
      case CborMajor::negativeInteger:
        if (argument > std::numeric_limits<int64_t>::max()) {
          return fail(ArchiveErrorCode::malformed, "An integer that does not fit 64 bits", start);
        }
        break;
      case CborMajor::bytes:
      case CborMajor::text:
        if (argument > rest) return truncated(start);
        if (major == CborMajor::text && !isValidUtf8(item_.substr(at_, argument))) {
          return fail(ArchiveErrorCode::invalidUtf8, "Text that is not UTF-8", start);
        }
        at_ += argument;
        break;
      case CborMajor::array:
        return argument > rest ? truncated(start) : open(argument, major, start);
      case CborMajor::map:
        return argument > rest / 2 ? truncated(start) : open(2 * argument, major, start);
      case CborMajor::tag: {
        if (!open(1, major, start)) return false;
        levels_[depth_ - 1].isExtendedTime = argument == static_cast<uint64_t>(CborTag::extendedTime);
        return true;
      }
      case CborMajor::simple:
        if (info < 20 || info == 23 || info == 24) {
          return fail(ArchiveErrorCode::malformed, "A simple value other than false, true and null", start);
        }
        break;
    }
    // Where keys may be integers they are compared with their heads, which tell an integer from a text.
    if (isKey && !noteKey(*around, around->allowsIntegerKeys ? start : at_ - argument)) return false;
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
    if (depth_ > 0) {
      --levels_[depth_ - 1].itemsLeft;
      beneathTime = levels_[depth_ - 1].isExtendedTime;
    }
    levels_[depth_++] = {items, keys_.size(), 0, isMap, false, isMap && beneathTime, items > 2 * kLargeMap};
    return true;
  }

  /// Ends what has all its items; true when the whole item has ended or at a fault.
  bool closeFinished() {
    while (depth_ > 0) {
      const Level& level = levels_[depth_ - 1];
      if (level.itemsLeft > 0) return false;
      if (level.isMap) {
        if (level.isLarge && !keysDiffer(level)) return true;
        keys_.resize(level.firstKey);
      }
      --depth_;
    }
    return true;
  }

  std::string_view textOf(KeyPlace key) const { return {item_.data() + key.offset, key.length}; }

  bool noteKey(Level& level, std::size_t offset) {
    const KeyPlace key{static_cast<uint32_t>(offset), static_cast<uint32_t>(at_ - offset)};
    if (!level.isLarge) {
      const std::string_view text = textOf(key);
      const unsigned hash =
          text.empty() ? 0
                       : static_cast<uint8_t>(text.front()) * 7U + static_cast<uint8_t>(text.back()) * 31U;
      const uint64_t bit = uint64_t{1} << ((hash + text.size()) % 64);
      if (level.keyHashes & bit) {
        for (std::size_t i = level.firstKey; i < keys_.size(); ++i) {
          if (textOf(keys_[i]) == text) return duplicate(key);
        }
      }
      level.keyHashes |= bit;
    }
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

  std::string_view item_;
  std::size_t at_ = 0;
  std::size_t elements_ = 0;
  unsigned depth_ = 0;
  std::array<Level, limits::kMaximumDepth> levels_;
  /// Of the maps that are open, innermost last.
  std::vector<KeyPlace> keys_;
  std::optional<Error> fault_;
};

}  // namespace

void CborWriter::head(CborMajor major, uint64_t argument) {
  char bytes[kLongestHead];
  out_.append(bytes, encodeHead(bytes, major, argument));
  ++elements_;
}

void CborWriter::integer(int64_t value) {
  if (value >= 0) {
    head(CborMajor::unsignedInteger, static_cast<uint64_t>(value));
  } else {
    head(CborMajor::negativeInteger, ~static_cast<uint64_t>(value));
  }
}

void CborWriter::float32(float value) {
  char bytes[5] = {static_cast<char>(0xFA)};
  storeBigEndian(bytes + 1, std::bit_cast<uint32_t>(value), 4);
  out_.append(bytes, sizeof bytes);
  ++elements_;
}

void CborWriter::float64(double value) {
  char bytes[9] = {static_cast<char>(0xFB)};
  storeBigEndian(bytes + 1, std::bit_cast<uint64_t>(value), 8);
  out_.append(bytes, sizeof bytes);
  ++elements_;
}

void CborWriter::text(std::string_view utf8) {
  head(CborMajor::text, utf8.size());
  out_.append(utf8);
}

void CborWriter::bytes(std::string_view raw) {
  head(CborMajor::bytes, raw.size());
  out_.append(raw);
}

void CborWriter::rewind(Mark mark) {
  out_.resize(mark.size);
  elements_ = mark.elements;
}

CborWriter::Mark CborWriter::openMap() {
  const Mark result = mark();
  map(0);
  return result;
}

void CborWriter::closeMap(Mark map, std::size_t entries) {
  // Few maps have 24 entries, which is where the head grows and what follows it must move.
  char bytes[kLongestHead];
  out_.replace(map.size, 1, bytes, encodeHead(bytes, CborMajor::map, entries));
}

std::optional<Error> checkWellFormed(std::string_view item) { return Checker(item).run(); }

double CborHead::real() const {
  if (info == 27) return std::bit_cast<double>(argument);
  if (info == 26) return static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(argument)));
  // IEEE 754 binary16, as RFC 8949, appendix D, reads it.
  const auto exponent = static_cast<int>(argument >> 10 & 31);
  const auto mantissa = static_cast<double>(argument & 1023);
  double value = 0;
  if (exponent == 0) {
    value = std::ldexp(mantissa, -24);
  } else if (exponent < 31) {
    value = std::ldexp(mantissa + 1024, exponent - 25);
  } else {
    value =
        mantissa == 0 ? std::numeric_limits<double>::infinity() : std::numeric_limits<double>::quiet_NaN();
  }
  return argument & 0x8000 ? -value : value;
}

void CborReader::skip() {
  for (uint64_t left = 1; left > 0; --left) {
    const CborHead head = next();
    switch (head.major) {
      case CborMajor::bytes:
      case CborMajor::text:
        position_ += head.argument;
        break;
      case CborMajor::array:
        left += head.argument;
        break;
      case CborMajor::map:
        left += 2 * head.argument;
        break;
      case CborMajor::tag:
        ++left;
        break;
      default:
        break;
    }
  }
}

}  // namespace larkspan::platform
