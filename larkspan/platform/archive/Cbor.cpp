#include "larkspan/platform/archive/Cbor.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace larkspan::platform {

namespace {

constexpr std::size_t kLongestHead = 9;

/// Writes `size` bytes (1 to 8), most significant first.
void storeBigEndian(char* to, uint64_t value, std::size_t size) {
  value = detail::bigEndian(value << (64 - 8 * size));
  std::memcpy(to, &value, size);
}

/// The shortest head of RFC 8949, section 3; answers its length.
std::size_t encodeHead(char* head, CborMajor major, uint64_t argument) {
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

}  // namespace

void CborWriter::head(CborMajor major, uint64_t argument) {
  out_.advance(encodeHead(out_.room(kLongestHead), major, argument));
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
  char* const to = out_.room(5);
  to[0] = static_cast<char>(0xFA);
  storeBigEndian(to + 1, std::bit_cast<uint32_t>(value), 4);
  out_.advance(5);
  ++elements_;
}

void CborWriter::float64(double value) {
  char* const to = out_.room(9);
  to[0] = static_cast<char>(0xFB);
  storeBigEndian(to + 1, std::bit_cast<uint64_t>(value), 8);
  out_.advance(9);
  ++elements_;
}

void CborWriter::string(CborMajor major, std::string_view content) {
  char* const to = out_.room(kLongestHead + content.size());
  const std::size_t head = encodeHead(to, major, content.size());
  // An empty view may have no data.
  if (!content.empty()) std::memcpy(to + head, content.data(), content.size());
  out_.advance(head + content.size());
  ++elements_;
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
  char head[kLongestHead];
  const std::size_t size = encodeHead(head, CborMajor::map, entries);
  const std::size_t content = out_.size() - map.size - 1;
  out_.room(kLongestHead);
  if (size > 1) std::memmove(out_.data() + map.size + size, out_.data() + map.size + 1, content);
  std::memcpy(out_.data() + map.size, head, size);
  out_.advance(size - 1);
}

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
