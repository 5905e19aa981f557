#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/desktop/FileProviderItem.h"
#include "larkspan/platform/ipc/Frame.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>

namespace larkspan::tests {
namespace {

using namespace platform;

/// The bytes at the left of a line of a worked example; what follows two blanks is a note.
std::string bytesOf(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  std::string digits, bytes;
  for (const char c : line.substr(0, line.find("  "))) {
    if (c != ' ') digits += c;
  }
  EXPECT_EQ(digits.size() % 2, 0U) << line;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

/// docs/wire.md, taken apart.
struct Page {
  /// The bytes of the blocks of a kind; each line that is not indented begins another run.
  std::map<std::string, std::vector<std::string>> blocks;
  /// What the tables of keys say of each.
  std::map<std::string, std::string> keys;

  Page() {
    std::ifstream file(LARKSPAN_TEST_SOURCE "/docs/wire.md");
    const std::regex row(R"(\| (`.*`) \| ([a-zA-Z ]+) \| .* \|)"), key("`([^`]*)`");
    std::string block;
    for (std::string line; std::getline(file, line);) {
      std::smatch cells;
      if (line.starts_with("```")) {
        block = line.substr(3);
      } else if (block.empty() && std::regex_match(line, cells, row)) {
        for (std::sregex_iterator each(cells[1].first, cells[1].second, key), end; each != end; ++each) {
          EXPECT_EQ(keys.emplace((*each)[1], cells[2]).first->second, cells[2]) << line;
        }
      } else if (!block.empty() && block != "ini" && !line.empty()) {
        if (line.front() != ' ') blocks[block].emplace_back();
        blocks[block].back() += bytesOf(line);
      }
    }
  }
};

/// The frame made anew of what it says, its values decoded as the receiver of that message does.
std::string remade(const Frame& frame) {
  if (frame.type == FrameType::hello) return encodeHello();
  if (frame.type <= FrameType::close) return encodeChannelFrame(frame.type, frame.channel);
  std::vector<ClassSet> classes{{ValueClass::error}};
  const auto toExtension = LKSHostExtensionContext::extensionAuxiliaryVendorProtocol();
  if (frame.type == FrameType::reply) classes = *toExtension->find(kProcessInputItems)->reply;
  if (frame.type == FrameType::call) classes = toExtension->find(frame.method)->arguments;
  if (frame.type == FrameType::post) {
    classes = LKSHostExtensionContext::extensionAuxiliaryHostProtocol()->find(frame.method)->arguments;
  }
  CborReader reader(frame.bytes.view());
  reader.moveTo(frame.body);
  if (frame.type != FrameType::failure && reader.next().argument != classes.size()) return {};
  std::vector<Value> values;
  for (const ClassSet& allowed : classes) {
    auto [value, error] = decodeValue(frame.bytes, reader, allowed);
    EXPECT_FALSE(error) << error->description();
    values.push_back(std::move(value));
  }
  return std::get<std::string>(encodeFrame(frame.type, frame.channel, frame.id, frame.method, values));
}

TEST(WirePage, ShowsTheBytesThatAreSent) {
  Page page;
  std::string all;
  for (const std::string& part : page.blocks["frames"]) all += part;
  std::map<FrameType, int> count;
  for (std::string_view rest = all; !rest.empty();) {
    const std::string_view bytes =
        rest.substr(0, kFrameLengthSize + detail::loadBigEndian(rest.data(), kFrameLengthSize));
    rest.remove_prefix(bytes.size());
    const auto parsed = Frame::parse(Slice::copy(bytes.substr(kFrameLengthSize)));
    ASSERT_TRUE(std::holds_alternative<Frame>(parsed)) << std::get<Error>(parsed).description();
    const auto& frame = std::get<Frame>(parsed);
    EXPECT_EQ(remade(frame), bytes) << testing::PrintToString(frame.type);
    ++count[frame.type];
  }
  EXPECT_EQ(count.size(), 7U) << "each type of frame";
  EXPECT_EQ(count[FrameType::post], 4);

  const ClassSet any =
      ClassSet::allValues().with<ExtensionItem>().with<LKSIconConstructor>().with<FileProviderItem>();
  std::set<Value::Kind> kinds;
  for (const char* block : {"values", "values-read"}) {
    for (const std::string& bytes : page.blocks[block]) {
      const auto [value, error] = KeyedUnarchiver::unarchivedValue(Data::copy(bytes), any);
      EXPECT_FALSE(error) << error->description() << ' ' << testing::PrintToString(bytes);
      kinds.insert(value.kind());
      EXPECT_EQ(KeyedArchiver::archivedData(value).data.view() == bytes, block == std::string("values"))
          << value.description();
      const auto item = value.objectOf<ExtensionItem>();
      if (item && item->userInfo().contains(kIconConstructor)) {
        EXPECT_EQ(MessageItem(item).lks_iconConstructor()->string(), "org.example.app");
      }
    }
  }
  EXPECT_EQ(kinds.size(), 14U) << "each kind of value";
}

TEST(WirePage, NamesEachKeyWithItsKind) {
  // In the order of Value::Kind.
  const char* const names[] = {"any value", "boolean", "integer", "float",      "float", "string", "data",
                               "date",      "URL",     "array",   "dictionary", "set",   "error"};
  auto keys = Page().keys;
  for (const VocabularyEntry& entry : vocabulary()) {
    const auto kind = static_cast<std::size_t>(entry.kind);
    if (entry.kind == Value::Kind::none && entry.key != kReferenceKey) continue;
    const auto documented = keys.extract(std::string(entry.key));
    ASSERT_TRUE(documented) << std::string_view(entry.key);
    EXPECT_EQ(documented.mapped(), names[kind]) << std::string_view(entry.key);
  }
  for (const auto& [key, kind] : keys) EXPECT_FALSE(key.starts_with('_')) << key << " is no key";
}

}  // namespace
}  // namespace larkspan::tests
