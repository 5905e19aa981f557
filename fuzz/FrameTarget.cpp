#include "fuzz/Targets.h"
#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/TableRows.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/ipc/Frame.h"
#include "larkspan/platform/ipc/FrameBuffer.h"

namespace larkspan::fuzz {

using namespace platform;

namespace {

/// Rows are asked for single values before anything makes their objects.
void compareRows(const Array& made, const Array& packed) {
  std::size_t at = 0;
  for (const Value& member : packed.packed()) {
    const auto rows = member.objectOf<TableRows>();
    for (std::size_t row = 0; rows && row < rows->size(); ++row) {
      const Dictionary userInfo = made[at + row].objectOf<ExtensionItem>()->userInfo();
      for (const Key& key : {kSizeKey, kNameKey, kAppSizeKey, Key("_C_")}) {
        expect(rows->integer(row, key, -1) == userInfo.get(key).integerOr(-1),
               "a number of a row reads as that of its object");
      }
      for (const auto& entry : userInfo) {
        const Value value = rows->get(row, entry.key());
        expect(value.description() == entry.value.description(), "a row holds what its object holds");
        expect(isValidUtf8(value.text()) &&
                   (!value.url() || URL::isWellFormed(value.url()->absoluteString())) &&
                   value.date().value_or(Date()).nanoseconds < 1'000'000'000,
               "what columns hold is as sound as what stands alone");
      }
    }
    at += rows ? rows->size() : 1;
  }
}

/// The values of a frame that has any, if a message may hold them.
std::optional<std::vector<Value>> valuesOf(const Frame& frame) {
  CborReader reader(frame.bytes.view());
  reader.moveTo(frame.body);
  uint64_t count = 1;
  if (frame.type != FrameType::failure) {
    const CborHead head = reader.next();
    if (head.major != CborMajor::array) return std::nullopt;
    count = head.argument;
  }
  std::vector<Value> values;
  for (; count > 0; --count) {
    const ClassSet& classes = LKSHostExtensionContext::extensionItemClasses();
    const std::size_t start = reader.position();
    const auto made = decodeValue(frame.bytes, reader, classes);
    reader.moveTo(start);
    auto [value, error] = decodeValue(frame.bytes, reader, classes, frame.plainMaps);
    expect(made.error.has_value() == error.has_value(),
           "what stays encoded is refused as what is made at once");
    if (error) return std::nullopt;
    compareRows(made.value.array(), value.array());
    expect(made.value.description() == value.description(),
           "what stays encoded reads as what is made at once");
    values.push_back(std::move(value));
  }
  expect(reader.atEnd(), "a frame ends with its values");
  return values;
}

std::variant<std::string, Error> encode(const Frame& frame, const std::vector<Value>& values) {
  if (frame.type < FrameType::call) return std::string(encodeChannelFrame(frame.type, frame.channel).view());
  const auto encoded = encodeFrame(frame.type, frame.channel, frame.id, frame.method, values, Tables::yes);
  if (const auto* error = std::get_if<Error>(&encoded)) return *error;
  return std::string(std::get<ByteBuffer>(encoded).view());
}

/// A stream is cut into its frames, whatever the pieces are in which it comes.
void cutStream(const std::string& item) {
  std::string stream;
  for (int shift = 24; shift >= 0; shift -= 8) stream += static_cast<char>(item.size() >> shift);
  stream += item;
  stream += stream;
  FrameBuffer frames;
  int found = 0;
  for (std::size_t at = 0, piece = item.size() % 31 + 1; at < stream.size(); piece = piece * 7 % 1021) {
    const std::span<char> room = frames.room();
    const std::size_t count = stream.copy(room.data(), std::min(room.size(), piece), at);
    frames.add(count);
    at += count;
    for (Slice frame; frames.next(frame); ++found)
      expect(frame.view() == item, "a frame comes out as it went in");
  }
  expect(found == 2 && !frames.isInside(), "no frame is lost");
}

}  // namespace

void frame(std::string_view input) {
  cutStream(std::string(input));
  const auto parsed = Frame::parse(Slice::copy(input));
  const auto* first = std::get_if<Frame>(&parsed);
  if (!first || first->type == FrameType::hello) return;
  const bool hasValues = first->type >= FrameType::call;
  const auto values = hasValues ? valuesOf(*first) : std::vector<Value>();
  if (!values) return;
  const auto encoded = encode(*first, *values);
  if (const auto* error = std::get_if<Error>(&encoded))
    return expect(isDateTooDeep(*error), "what was read can be written");
  const std::string_view bytes = std::get<std::string>(encoded);
  expect(detail::loadBigEndian(bytes.data(), kFrameLengthSize) == bytes.size() - kFrameLengthSize,
         "its length leads a frame");
  const auto second = std::get<Frame>(Frame::parse(Slice::copy(bytes.substr(kFrameLengthSize))));
  expect(second.type == first->type && second.channel == first->channel && second.id == first->id &&
             second.method == first->method,
         "the envelope comes back");
  const auto again = hasValues ? valuesOf(second) : values;
  expect(again && encode(second, *again) == encoded, "the values come back");
}

}  // namespace larkspan::fuzz
