#pragma once

#include "larkspan/platform/base/ByteBuffer.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace larkspan::platform {

namespace detail {

inline uint64_t bigEndian(uint64_t value) {
  return std::endian::native == std::endian::big ? value : __builtin_bswap64(value);
}

template <typename Integer>
Integer loaded(const char* from) {
  Integer value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

/// Reads 1, 2, 4 or 8 bytes, most significant first.
inline uint64_t loadBigEndian(const char* from, std::size_t size) {
  switch (size) {
    case 1:
      return static_cast<uint8_t>(*from);
    case 2:
      return bigEndian(loaded<uint16_t>(from)) >> (std::endian::native == std::endian::big ? 0 : 48);
    case 4:
      return bigEndian(loaded<uint32_t>(from)) >> (std::endian::native == std::endian::big ? 0 : 32);
    default:
      return bigEndian(loaded<uint64_t>(from));
  }
}

/// Reads 1, 2, 4 or 8 bytes of a two's complement.
inline int64_t loadSigned(const char* from, std::size_t size) {
  const auto unused = static_cast<unsigned>(64 - 8 * size);
  return static_cast<int64_t>(loadBigEndian(from, size) << unused) >> unused;
}

/// Writes all bytes of the integer, most significant first, and passes them.
template <typename Integer>
void storeBigEndian(char*& to, Integer value) {
  const uint64_t bytes = bigEndian(static_cast<uint64_t>(value) << (64 - 8 * sizeof value));
  std::memcpy(to, &bytes, sizeof value);
  to += sizeof value;
}

/// memcpy(3) for what mostly is short.
inline void copyBytes(char* to, std::string_view from) {
  const std::size_t size = from.size();
  const auto copyEnds = [&]<typename Word>(Word) {
    const auto first = loaded<Word>(from.data());
    const auto last = loaded<Word>(from.data() + size - sizeof(Word));
    std::memcpy(to, &first, sizeof(Word));
    std::memcpy(to + size - sizeof(Word), &last, sizeof(Word));
  };
  using Block = std::array<uint64_t, 2>;
  if (size > 2 * sizeof(Block)) {
    std::memcpy(to, from.data(), size);
  } else if (size >= sizeof(Block)) {
    copyEnds(Block());
  } else if (size >= sizeof(uint64_t)) {
    copyEnds(uint64_t());
  } else if (size >= sizeof(uint32_t)) {
    copyEnds(uint32_t());
  } else {
    for (std::size_t i = 0; i < size; ++i) to[i] = from[i];
  }
}

/// The longest head of an item.
inline constexpr std::size_t kLongestHead = 9;

/// Writes the shortest head of RFC 8949, section 3, over `kLongestHead` bytes at most; answers its length.
inline std::size_t encodeHead(char* head, unsigned major, uint64_t argument) {
  if (argument < 24) {
    head[0] = static_cast<char>(major << 5 | argument);
    return 1;
  }
  const unsigned exponent = argument <= 0xFF ? 0 : argument <= 0xFFFF ? 1 : argument <= 0xFFFFFFFF ? 2 : 3;
  const unsigned size = 1U << exponent;
  head[0] = static_cast<char>(major << 5 | (24 + exponent));
  const uint64_t bytes = bigEndian(argument << (64 - 8 * size));
  std::memcpy(head + 1, &bytes, sizeof bytes);
  return 1 + size;
}

}  // namespace detail

/// The major types of RFC 8949, section 3.1.
enum class CborMajor : uint8_t { unsignedInteger, negativeInteger, bytes, text, array, map, tag, simple };

/// The tags in use, from the IANA registry "CBOR Tags".
enum class CborTag : uint64_t {
  epochTime = 1,        ///< Seconds since 1970, integer or float (RFC 8949, section 3.4.2); only read.
  object = 27,          ///< [class name, {key: value}] (http://cbor.schmorp.de/generic-object).
  uri = 32,             ///< A text string (RFC 8949, section 3.4.5.3).
  set = 258,            ///< An array (https://github.com/input-output-hk/cbor-sets-spec).
  extendedTime = 1001,  ///< {1: seconds since 1970, -9: nanoseconds} (RFC 9581, section 3).
};

/// The items of booleans, which are one byte.
inline constexpr uint8_t kCborFalse = 0xF4, kCborTrue = 0xF5;

/// Appends CBOR to a buffer: definite lengths, the shortest heads but in `raw` and `closeArray`. Checks nothing: the
/// caller writes as many items as the heads promise, and text that is UTF-8.
/// Owner:  the buffer stays the caller's and must outlive the writer.
/// Thread: one at a time.
class CborWriter {
 public:
  /// Writes after what the buffer holds already, which is not counted in `size()`.
  explicit CborWriter(ByteBuffer& out) : out_(out), start_(out.size()) {}

  void null() { single(0xF6); }
  void boolean(bool value) { single(value ? kCborTrue : kCborFalse); }
  void integer(int64_t value) {
    const auto bits = static_cast<uint64_t>(value);
    value >= 0 ? head(CborMajor::unsignedInteger, bits) : head(CborMajor::negativeInteger, ~bits);
  }
  void float32(float value);
  void float64(double value);
  void text(std::string_view utf8) { detail::copyBytes(string(CborMajor::text, utf8.size()), utf8); }
  void bytes(std::string_view raw) { detail::copyBytes(string(CborMajor::bytes, raw.size()), raw); }
  /// The head of a text or byte string; the caller fills in its content, at what this answers, before it writes more than
  /// was reserved.
  char* string(CborMajor major, std::size_t size) {
    char* const to = out_.room(detail::kLongestHead + size);
    const std::size_t head = detail::encodeHead(to, static_cast<unsigned>(major), size);
    out_.advance(head + size);
    ++elements_;
    return to + head;
  }
  /// The head of an array; the items follow.
  void array(std::size_t items) { head(CborMajor::array, items); }
  /// The head of a map; keys and values follow in turn.
  void map(std::size_t entries) { head(CborMajor::map, entries); }
  /// The tagged item follows.
  void tag(CborTag number) { head(CborMajor::tag, static_cast<uint64_t>(number)); }

  /// Tag 1001 and the map below it; without nanoseconds if they are 0.
  void date(int64_t seconds, uint32_t nanoseconds);
  /// Whole items that are encoded already.
  void raw(std::string_view items, std::size_t elements) {
    out_.append(items);
    elements_ += elements;
  }

  /// Room for so many bytes more, taken at once: what is written in it does not move.
  void reserve(std::size_t bytes) { out_.room(bytes); }
  /// Bytes written.
  std::size_t size() const { return out_.size() - start_; }
  /// Items written, as `limits::kMaximumElements` counts them.
  std::size_t elements() const { return elements_; }

  /// A point to come back to.
  struct Mark {
    std::size_t size;
    std::size_t elements;
  };
  Mark mark() const { return {out_.size(), elements_}; }
  /// Takes back what was written since.
  void rewind(Mark mark);
  /// Opens a map whose entries are not counted yet.
  Mark openMap();
  /// Closes the map of `openMap`, which now has this many entries.
  void closeMap(Mark map, std::size_t entries);
  /// Opens an array of at most so many items.
  Mark openArray(std::size_t items);
  /// Closes the array of `openArray`, which has this many items now, with a head as long as before.
  void closeArray(Mark array, std::size_t items);

 private:
  void single(uint8_t byte) {
    ++elements_;
    *out_.room(1) = static_cast<char>(byte);
    out_.advance(1);
  }
  void head(CborMajor major, uint64_t argument) {
    out_.advance(detail::encodeHead(out_.room(detail::kLongestHead), static_cast<unsigned>(major), argument));
    ++elements_;
  }
  void writeFloat(uint8_t head, uint64_t leftmostBits, std::size_t size);

  ByteBuffer& out_;
  std::size_t start_;
  std::size_t elements_ = 0;
};

/// The first bytes of an item: what it is, and its value, length, count or tag number.
struct CborHead {
  CborMajor major;
  /// The low five bits of the first byte: tells floats and simple values apart.
  uint8_t info;
  uint64_t argument;

  bool isInteger() const { return major <= CborMajor::negativeInteger; }
  bool isTag(CborTag tag) const { return major == CborMajor::tag && argument == static_cast<uint64_t>(tag); }
  bool isNull() const { return major == CborMajor::simple && info == 22; }
  bool isBoolean() const { return major == CborMajor::simple && (info == 20 || info == 21); }
  /// Of 16, 32 or 64 bits.
  bool isFloat() const { return major == CborMajor::simple && info >= 25; }

  /// The number of an integer.
  int64_t integer() const {
    return static_cast<int64_t>(major == CborMajor::negativeInteger ? ~argument : argument);
  }
  bool boolean() const { return info == 21; }
  /// The number of a float; each width fits.
  double real() const;
};

/// A cursor over bytes that `checkWellFormed` (WellFormed.h) has passed: it never looks for faults, and reading other bytes,
/// or past the end, is undefined.
/// Owner:  the bytes stay the caller's.
/// Thread: one at a time.
class CborReader {
 public:
  explicit CborReader(std::string_view checked) : bytes_(checked) {}

  std::size_t position() const { return position_; }
  bool atEnd() const { return position_ == bytes_.size(); }

  /// The head of the next item, without passing it.
  CborHead peek() const {
    std::size_t at = position_;
    return headAt(at);
  }
  /// Passes the head. What it announces comes next: `content` for text and bytes, else items.
  CborHead next() { return headAt(position_); }
  /// Passes the bytes of the text or byte string whose head came last.
  std::string_view content(const CborHead& head) {
    const std::string_view result = bytes_.substr(position_, head.argument);
    position_ += head.argument;
    return result;
  }
  /// Passes whole items with all that they hold.
  void skip(uint64_t items = 1);
  /// Goes to the first byte of some item.
  void moveTo(std::size_t position) { position_ = position; }

 private:
  CborHead headAt(std::size_t& at) const {
    const auto first = static_cast<uint8_t>(bytes_[at++]);
    CborHead head{static_cast<CborMajor>(first >> 5), static_cast<uint8_t>(first & 31), first & 31U};
    if (head.info >= 24) {
      const std::size_t size = std::size_t{1} << (head.info - 24);
      head.argument = detail::loadBigEndian(bytes_.data() + at, size);
      at += size;
    }
    return head;
  }

  std::string_view bytes_;
  std::size_t position_ = 0;
};

}  // namespace larkspan::platform
