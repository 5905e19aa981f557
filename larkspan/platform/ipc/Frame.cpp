#include "larkspan/platform/ipc/Frame.h"

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"

#include <algorithm>

namespace larkspan::platform {

namespace {

/// The frame's own array and that of its arguments.
constexpr unsigned kEnvelopeDepth = 2;

/// Room for the length.
ByteBuffer emptyFrame() {
  ByteBuffer frame;
  frame.room(kFrameLengthSize);
  frame.advance(kFrameLengthSize);
  return frame;
}

void writeLength(ByteBuffer& frame) {
  char* to = frame.data();
  detail::storeBigEndian(to, static_cast<uint32_t>(frame.size() - kFrameLengthSize));
}

Error malformed(std::string_view fault, std::size_t offset) {
  return archiveError(ArchiveErrorCode::malformed, fault, offset);
}

}  // namespace

std::variant<Frame, Error> Frame::parse(Slice bytes) {
  Frame frame;
  if (auto error = checkWellFormed(bytes.view(), &frame.plainMaps, &frame.elements)) return std::move(*error);
  CborReader reader(bytes.view());
  const auto fault = [&](std::string_view text) { return malformed(text, reader.position()); };

  const CborHead array = reader.next();
  if (array.major != CborMajor::array || array.argument == 0) return fault("A frame is an array");
  const CborHead type = reader.next();
  if (type.major != CborMajor::unsignedInteger || type.argument > static_cast<uint64_t>(FrameType::part)) {
    return fault("Unknown type of frame");
  }
  frame.type = static_cast<FrameType>(type.argument);
  constexpr uint64_t kMembers[] = {2, 2, 2, 5, 4, 4, 4, 4};
  if (array.argument != kMembers[type.argument]) return fault("A frame of the wrong number of members");

  if (frame.type != FrameType::hello) {
    const CborHead channel = reader.next();
    if (channel.major != CborMajor::unsignedInteger || channel.argument > UINT32_MAX)
      return fault("No channel");
    frame.channel = static_cast<uint32_t>(channel.argument);
  }
  if (frame.type >= FrameType::call && frame.type != FrameType::post) {
    const CborHead id = reader.next();
    if (id.major != CborMajor::unsignedInteger) return fault("No call number");
    frame.id = id.integer();
  }
  if (frame.type == FrameType::call || frame.type == FrameType::post) {
    const CborHead method = reader.next();
    if (method.major != CborMajor::text) return fault("No method");
    frame.method = reader.content(method);
  }
  frame.body = reader.position();
  frame.bytes = std::move(bytes);
  return frame;
}

std::variant<ByteBuffer, Error> encodeFrame(FrameType type, uint32_t channel, int64_t id,
                                            std::string_view method, const std::vector<Value>& values,
                                            Tables tables, MessageCost* cost) {
  const bool named = type == FrameType::call || type == FrameType::post;
  const bool numbered = type != FrameType::post;
  ByteBuffer frame = emptyFrame();
  CborWriter writer(frame);
  MessageCost own;
  if (!cost) cost = &own;
  // The parts of a message are of much the same size, and a buffer that grows copies what it holds.
  writer.reserve(cost->largest + cost->largest / 8);
  writer.array(2 + named + numbered + 1);
  writer.integer(static_cast<int64_t>(type));
  writer.integer(channel);
  if (numbered) writer.integer(id);
  if (named) writer.text(method);
  if (type != FrameType::failure) writer.array(values.size());
  for (const Value& value : values) {
    if (auto error = encodeValue(writer, value, kEnvelopeDepth, tables, cost)) return std::move(*error);
  }
  if (cost->bytes + writer.size() > limits::kMaximumFrame) {
    return archiveError(ArchiveErrorCode::tooLarge, "The message does not fit into a frame");
  }
  cost->bytes += writer.size();
  cost->largest = std::max(cost->largest, writer.size());
  cost->elements += writer.elements();
  writeLength(frame);
  return frame;
}

ByteBuffer encodeHello() {
  ByteBuffer frame = emptyFrame();
  CborWriter writer(frame);
  writer.array(2);
  writer.integer(static_cast<int64_t>(FrameType::hello));
  writer.map(3);
  writer.text("protocol");
  writer.text(kProtocolName);
  writer.text("version");
  writer.integer(kProtocolVersion);
  writer.text("capabilities");
  writer.array(2);
  writer.text(kTablesCapability);
  writer.text(kPartsCapability);
  writeLength(frame);
  return frame;
}

ByteBuffer encodeChannelFrame(FrameType type, uint32_t channel) {
  ByteBuffer frame = emptyFrame();
  CborWriter writer(frame);
  writer.array(2);
  writer.integer(static_cast<int64_t>(type));
  writer.integer(channel);
  writeLength(frame);
  return frame;
}

}  // namespace larkspan::platform
