#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/desktop/FileProviderItem.h"
#include "larkspan/platform/ipc/Frame.h"
#include "larkspan/platform/ipc/PassedObject.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>

namespace larkspan::tests {
namespace {

using namespace platform;

/// docs/wire.md, taken apart.
struct Page {
  std::vector<std::string> frames;
  /// The values, by whether the library would write them so.
  std::vector<std::pair<std::string, bool>> values;
  /// What the tables of keys say of each.
  std::map<std::string, std::string> keys;

  Page() { read("/docs/wire.md"); }
  void read(const std::string& path) {
    std::ifstream file(LARKSPAN_TEST_SOURCE + path);
    const std::regex row(R"(\| (`.*`) \| ([a-zA-Z ]+) \| .* \|)"), key("`([^`]*)`");
    std::string block, stream;
    for (std::string line; std::getline(file, line);) {
      std::smatch cells;
      if (line.starts_with("```")) {
        block = line.substr(3);
      } else if (block == "frames") {
        stream += bytesOf(line);
      } else if (block.starts_with("values")) {
        // A line that is not indented begins another value.
        if (!line.starts_with(' ')) values.emplace_back("", block == "values");
        values.back().first += bytesOf(line);
      } else if (std::regex_match(line, cells, row)) {
        for (std::sregex_iterator each(cells[1].first, cells[1].second, key), end; each != end; ++each) {
          EXPECT_EQ(keys.emplace((*each)[1], cells[2]).first->second, cells[2]) << line;
        }
      }
    }
    for (; !stream.empty(); stream.erase(0, frames.back().size())) {
      frames.push_back(
          stream.substr(0, kFrameLengthSize + detail::loadBigEndian(stream.data(), kFrameLengthSize)));
    }
  }
  /// The bytes at the left of a line; what follows two blanks is a note.
  static std::string bytesOf(std::string line) {
    line.erase(0, line.find_first_not_of(' '));
    line.resize(std::min(line.find("  "), line.size()));
    std::erase(line, ' ');
    EXPECT_EQ(line.size() % 2, 0U) << line;
    std::string bytes;
    for (std::size_t i = 0; i < line.size(); i += 2)
      bytes += static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16));
    return bytes;
  }
};

TEST(WirePage, ShowsTheBytesThatTheLibraryWrites) {
  const ClassSet any = ClassSet::allValues()
                           .with<ExtensionItem>()
                           .with<LKSIconConstructor>()
                           .with<FileProviderItem>()
                           .with<PassedObject>();
  Page page;
  page.read("/docs/services.md");
  std::set<FrameType> types;
  for (const std::string& bytes : page.frames) {
    const auto frame = std::get<Frame>(Frame::parse(Slice::copy(bytes.substr(kFrameLengthSize))));
    types.insert(frame.type);
    if (frame.type < FrameType::call) {
      EXPECT_EQ(
          (frame.type == FrameType::hello ? encodeHello() : encodeChannelFrame(frame.type, frame.channel))
              .view(),
          bytes);
      continue;
    }
    CborReader reader(frame.bytes.view());
    reader.moveTo(frame.body);
    const Value content = decodeValue(frame.bytes, reader, any).value;
    const auto values = content.kind() == Value::Kind::array ? content.array() : Array{content};
    const auto again =
        encodeFrame(frame.type, frame.channel, frame.id, frame.method, {values.begin(), values.end()});
    EXPECT_EQ(std::get<ByteBuffer>(again).view(), bytes);
  }
  EXPECT_EQ(types.size(), 8U) << "each type of frame";
  std::set<Value::Kind> kinds;
  for (const auto& [bytes, isOurs] : page.values) {
    // Nothing stays encoded, so that all of it is written anew.
    CborReader reader(bytes);
    EXPECT_FALSE(checkWellFormed(bytes));
    const auto [value, error] = decodeValue(Slice::copy(bytes), reader, any);
    EXPECT_FALSE(error) << error->description() << ' ' << testing::PrintToString(bytes);
    EXPECT_EQ(KeyedArchiver::archivedData(value).data.view() == bytes, isOurs) << value.description();
    kinds.insert(value.kind());
    const auto item = value.objectOf<ExtensionItem>();
    if (!item || !item->userInfo().contains(kIconConstructor)) continue;
    EXPECT_EQ(MessageItem(item).lks_iconConstructor()->string(), "org.example.app");
  }
  EXPECT_EQ(kinds.size(), 14U) << "each kind of value";
}

TEST(WirePage, NamesEachKeyWithItsKind) {
  // In the order of Value::Kind.
  const char* const kinds[] = {"any value", "boolean", "integer", "float",      "float", "string", "data",
                               "date",      "URL",     "array",   "dictionary", "set",   "error"};
  auto keys = Page().keys;
  for (const VocabularyEntry& entry : vocabulary()) {
    if (entry.kind == Value::Kind::none && entry.key != kReferenceKey) continue;
    const auto documented = keys.extract(std::string(entry.key));
    ASSERT_TRUE(documented) << std::string_view(entry.key);
    EXPECT_EQ(documented.mapped(), kinds[static_cast<std::size_t>(entry.kind)])
        << std::string_view(entry.key);
  }
  for (const auto& [key, kind] : keys) EXPECT_FALSE(key.starts_with('_')) << key << " is no key";
}

TEST(WirePage, IsAnExtensionIfItsFramesArePlayed) {
  const ManifestTree tree;
  const Page page;
  ASSERT_EQ(page.frames.size(), 13U);
  tree.add("wire.extension", "W", "./player");
  tree.file("hello", page.frames[0]);
  const std::string heard = page.frames[0] + page.frames[1] + page.frames[3];
  tree.file("player", "#!/bin/sh\ncd \"${0%/*}\"; cat hello >&3; head -c " + std::to_string(heard.size()) +
                          " <&3 >heard; cat answer >&3; head -c 4 <&3 >&-\n");
  const auto play = [&](std::initializer_list<std::size_t> answer) {
    shell("cd " + tree.root + "; chmod +x player; rm -f heard answer");
    std::string all;
    for (const std::size_t frame : answer) all += page.frames[frame];
    tree.file("answer", all);
    const std::string said = shell("LARKSPAN_LOG=stderr LARKSPAN_EXTENSION_PATH=" + tree.root +
                                   " " LARKSPAN_TEST_BIN "/larkspan ask wire 'TIPS?' 2>&1; true");
    EXPECT_EQ(shell("cat " + tree / "heard"), heard);
    return said;
  };
  const std::string said = play({9, 10, 11, 12, 8, 4});
  std::size_t at = 0;
  for (const char* text : {"Received 1 partial resource items from org.example.downloads",
                           "sent resourcesDidChange with 0 items", "sent tipsDidChange with 0 items",
                           "sent totalSpaceUsedDidChange : 1500000000", "_NAME_: Tidy up"}) {
    at = said.find(text, at);
    EXPECT_NE(at, said.npos) << text << said;
  }
  EXPECT_TRUE(play({6}).find("larkspan: That is no download.") != said.npos);
  // A part before a failure counts for nothing.
  for (const std::string& told : {play({7}), play({8, 7})})
    EXPECT_TRUE(told.find("larkspan: The operation could not be completed (org.example error 7).") !=
                told.npos)
        << told;
}

TEST(Guide, LeadsToAnExtensionThatDeletesAndRecommends) {
  const TestTree home;
  // What the page has typed, and what it has put into the class and, further indented, into the loop.
  std::ofstream commands(home / "commands"), members(home / "members"), loop(home / "loop"),
      includes(home / "includes");
  std::ifstream page(LARKSPAN_TEST_SOURCE "/docs/writing-an-extension.md");
  std::string block, previous;
  for (std::string line; std::getline(page, line); previous = line) {
    const auto include = line.find("`#include \"");
    if (line.starts_with("```")) {
      block = line.substr(3);
    } else if (block == "sh") {
      commands << line << '\n';
    } else if (block == "cpp") {
      (previous == "```cpp" && line.starts_with("      ") ? loop : members) << line << '\n';
    } else if (include != line.npos) {
      includes << line.substr(include + 1, line.find('`', include + 1) - include - 1) << '\n';
    }
  }
  for (std::ofstream* file : {&commands, &members, &loop, &includes}) file->close();
  EXPECT_EQ(shell("export HOME=" + home.path() +
                  R"(; unset XDG_DATA_HOME LARKSPAN_LOG; cd; mkdir -p larkspan/build Downloads
      ln -s )" LARKSPAN_TEST_SOURCE "/larkspan " LARKSPAN_TEST_SOURCE
                  "/examples larkspan; ln -s " LARKSPAN_TEST_BIN R"(/.. larkspan/build/release
      printf '#!/bin/sh\n' >larkspan/dev; chmod +x larkspan/dev
      cat >bash <<'TXT'
      set -e
      g++() {
        sed -i '1e cat ../includes
          /setLks_deletable(false)/d
          /resources.push_back/e cat ../loop
          /int64_t totalSpaceUsed/e cat ../members' main.cpp
        )" LARKSPAN_TEST_CXX R"( "$@"
      }
      . ~/commands
TXT
      head -c 9000 /dev/zero | tee Downloads/a.iso >Downloads/b.iso
      bash bash >said 2>error || cat said error >&2
      grep -E '^(_CONFIRM_TITLE_|Total)' said | sed 's/[ab]\.iso/one of them/'; ls Downloads)"),
            "Total: 2 items, 25 KB\n_CONFIRM_TITLE_: Delete “one of them”?\n"
            "_CONFIRM_TITLE_: Delete the disk image for good?\nTotal: 0 items, 0 bytes\n");
}

}  // namespace
}  // namespace larkspan::tests
