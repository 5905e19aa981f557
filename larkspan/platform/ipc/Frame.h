#pragma once

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/MessageCost.h"
#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/ByteBuffer.h"
#include "larkspan/platform/base/Slice.h"
#include "larkspan/platform/base/Value.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// What a frame says. A frame is a 4-byte big-endian length and one CBOR array, whose first member is the
/// type; docs/wire.md describes each with its bytes.
enum class FrameType : int64_t {
  hello = 0,    ///< [0, {"protocol", "version", "capabilities"}]: first each way
  open = 1,     ///< [1, channel]: a request begins
  close = 2,    ///< [2, channel]: it has ended
  call = 3,     ///< [3, channel, id, method, [arguments]]
  post = 4,     ///< [4, channel, method, [arguments]]: a call without a reply
  reply = 5,    ///< [5, channel, id, [values]]
  failure = 6,  ///< [6, channel, id, error]: the call was not carried out
  part = 7,     ///< [7, channel, id, [list]]: members that stand before those of the reply's first value
};

/// Bytes of the length in front of each frame.
inline constexpr std::size_t kFrameLengthSize = 4;

/// The version of the protocol spoken here, and its name in the hello.
inline constexpr int64_t kProtocolVersion = 1;
inline constexpr std::string_view kProtocolName = "larkspan";
/// The capability of a peer that reads tables (ValueCoding.h).
inline constexpr std::string_view kTablesCapability = "tables";
/// The capability of a peer that takes replies in parts.
inline constexpr std::string_view kPartsCapability = "parts";

/// A frame that came in, its envelope read and its values still encoded.
struct Frame {
  FrameType type = FrameType::hello;
  uint32_t channel = 0;
  int64_t id = 0;
  std::string_view method;   ///< Points into `bytes`.
  Slice bytes;               ///< The CBOR item.
  std::size_t body = 0;      ///< Where in `bytes` the arguments, values, error or hello stand.
  PlainMaps plainMaps;       ///< Of `bytes`.
  std::size_t elements = 0;  ///< In `bytes`, as `limits::kMaximumElements` counts them.

  /// Reads the envelope after checking all of the item; the error says what is wrong with it.
  static std::variant<Frame, Error> parse(Slice bytes);
};

/// The bytes of a frame, length included. The error is that of a value which cannot be encoded or of a frame
/// that is too large. `cost` is that of the message's earlier frames, to which this one is added.
std::variant<ByteBuffer, Error> encodeFrame(FrameType type, uint32_t channel, int64_t id,
                                            std::string_view method, const std::vector<Value>& values,
                                            Tables tables = Tables::no, MessageCost* cost = nullptr);
ByteBuffer encodeHello();
/// Of type `open` or `close`.
ByteBuffer encodeChannelFrame(FrameType type, uint32_t channel);

}  // namespace larkspan::platform
