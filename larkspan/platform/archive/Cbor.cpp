#include "larkspan/platform/archive/Cbor.h"

#include <bit>
#include <cstring>
#include <limits>
#include <string_view>

namespace larkspan::platform {

void CborWriter::float32(float value) {
  writeFloat(0xFA, uint64_t{std::bit_cast<uint32_t>(value)} << 32, sizeof value);
}

void CborWriter::float64(double value) { writeFloat(0xFB, std::bit_cast<uint64_t>(value), sizeof value); }

void CborWriter::writeFloat(uint8_t head, uint64_t leftmostBits, std::size_t size) {
  char* const to = out_.room(detail::kLongestHead);
  to[0] = static_cast<char>(head);
  const uint64_t bytes = detail::bigEndian(leftmostBits);
  std::memcpy(to + 1, &bytes, sizeof bytes);
  out_.advance(1 + size);
  ++elements_;
}

void CborWriter::date(int64_t seconds, uint32_t nanoseconds) {
  constexpr std::string_view kHead("\xD9\x03\xE9\xA1\x01", 5);
  char* const start = out_.room(kHead.size() + 2 * detail::kLongestHead + 1);
  char* to = start;
  std::memcpy(to, kHead.data(), kHead.size());
  to += kHead.size();
  to += detail::encodeHead(to, seconds < 0, static_cast<uint64_t>(seconds < 0 ? ~seconds : seconds));
  elements_ += 4;
  if (nanoseconds != 0) {
    ++start[3];  // Two entries.
    *to++ = '\x28';
    to += detail::encodeHead(to, 0, nanoseconds);
    elements_ += 2;
  }
  out_.advance(static_cast<std::size_t>(to - start));
}

void CborWriter::rewind(Mark mark) {
  out_.truncate(mark.size);
  elements_ = mark.elements;
}

CborWriter::Mark CborWriter::openMap() {
  const Mark result = mark();
  map(0);
  return result;
}

void CborWriter::closeMap(Mark map, std::size_t entries) {
  // Few maps have 24 entries, which is where the head grows and what follows it must move.
  char head[detail::kLongestHead];
  const std::size_t size = detail::encodeHead(head, static_cast<unsigned>(CborMajor::map), entries);
  const std::size_t content = out_.size() - map.size - 1;
  out_.room(detail::kLongestHead);
  if (size > 1) std::memmove(out_.data() + map.size + size, out_.data() + map.size + 1, content);
  std::memcpy(out_.data() + map.size, head, size);
  out_.advance(size - 1);
}

CborWriter::Mark CborWriter::openArray(std::size_t items) {
  const Mark result = mark();
  array(items);
  return result;
}

void CborWriter::closeArray(Mark array, std::size_t items) {
  char* const head = out_.data() + array.size;
  const unsigned info = static_cast<uint8_t>(*head) & 31;
  if (info < 24) {
    *head = static_cast<char>(static_cast<unsigned>(CborMajor::array) << 5 | items);
    return;
  }
  for (std::size_t size = std::size_t{1} << (info - 24); size > 0; --size, items >>= 8)
    head[size] = static_cast<char>(items);
}

double CborHead::real() const {
  if (info == 27) return std::bit_cast<double>(argument);
  if (info == 26) return static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(argument)));
  // IEEE 754 binary16: exponent and mantissa as a double has them once they are shifted, with a bias that is less by 1008.
  constexpr uint64_t kInfinity = 0x7c00;
  const uint64_t magnitude = argument & 0x7fff;
  double value = std::bit_cast<double>(magnitude << 42) * 0x1p1008;
  if (magnitude == kInfinity) value = std::numeric_limits<double>::infinity();
  if (magnitude > kInfinity) value = std::numeric_limits<double>::quiet_NaN();
  return argument & 0x8000 ? -value : value;
}

void CborReader::skip(uint64_t items) {
  for (uint64_t left = items; left > 0; --left) {
    const CborHead head = next();
    switch (head.major) {
      case CborMajor::unsignedInteger:
      case CborMajor::negativeInteger:
      case CborMajor::simple:
        break;
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
    }
  }
}

}  // namespace larkspan::platform
