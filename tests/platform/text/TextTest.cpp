#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/text/KeyFile.h"
#include "larkspan/platform/text/SizeText.h"
#include "larkspan/platform/text/StringTable.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <string>

#include <fcntl.h>

namespace larkspan::platform {
namespace {

TEST(KeyFile, ReadsGroupsTextsAndFlags) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "# comment\n\n[Storage Extension]\nName = Photos \nExec=/bin/a\\sb\\\\c\\n\\t\nEmpty=\n"
      "List=a\\;b;;c d;\nOn=true\nOff=false\nOdd=yes\n \t\n[Other]\nName=\xC3\xA9",
      error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  EXPECT_TRUE(file->hasGroup("Other") && !file->hasGroup("other"));
  const std::string group = "Storage Extension";
  const std::pair<const char*, std::optional<std::string>> texts[] = {
      {"Name", "Photos"}, {"Exec", "/bin/a b\\c\n\t"}, {"Empty", ""}, {"List", "a;b;;c d;"}, {"No", {}}};
  for (const auto& [key, text] : texts) EXPECT_EQ(file->string(group, key), text);
  EXPECT_EQ(file->string("Other", "Name"), "\xC3\xA9");
  EXPECT_EQ(file->string("Other", "Exec"), std::nullopt);
  EXPECT_TRUE(file->boolean(group, "On") == true && file->boolean(group, "Off") == false);
  EXPECT_FALSE(file->boolean(group, "Odd"));
}

TEST(KeyFile, PicksTheTextThatFitsTheLocaleBest) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "[G]\nK=plain\nK[sr]=sr\nK[sr@Latn]=sr@Latn\nK[sr_YU.UTF-8]=sr_YU\nK[sr_YU@Latn]=sr_YU@Latn\n", error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"sr_YU.ISO-8859-5@Latn", "sr_YU@Latn"}, {"sr_YU.UTF-8", "sr_YU"}, {"sr_YU@Cyrl", "sr_YU"},
      {"sr_RS@Latn", "sr@Latn"}, {"sr@Cyrl", "sr"}, {"sr", "sr"}, {"s", "plain"}, {"C", "plain"}, {"", "plain"}};
  // clang-format on
  for (const auto& [locale, text] : cases) EXPECT_EQ(file->localizedString("G", "K", locale), text) << locale;
  EXPECT_EQ(file->localizedString("G", "L", "sr"), std::nullopt);
}

TEST(KeyFile, RefusesWhatIsMalformedAndNamesTheLine) {
  std::string manyKeys = "[G]\n";
  for (std::size_t i = 0; i <= KeyFile::kMaxKeys; ++i) manyKeys += "K" + std::to_string(i) + "=\n";
  const struct {
    std::size_t line;
    const char* reason;
    std::vector<std::string> texts;
  } cases[] = {{1, "a key before the first group", {"K=v\n"}},
               {3, "neither a group, a key nor a comment", {"#\n[G]\nnonsense\n"}},
               {1, "a malformed group header", {"[G\n", "[]\n", "[a[b]\n", "[a[", "[G] x\n", "[\xC3\xA9]\n"}},
               {3, "the group G stands here again", {"[G]\n[H]\n[G]\n"}},
               {2, "a malformed key", {"[G]\n=v\n", "[G]\nK_=v\n", "[G]\n K=v\n", "[G]\nK[de=v\n"}},
               {2, "a malformed locale", {"[G]\nK[]=v\n", "[G]\nK[@x]=v\n", "[G]\nK[d e]=v\n"}},
               {3, "the key K stands here again", {"[G]\nK=v\nK=w\n", "[G]\nK[de]=v\nK[de.UTF-8]=w\n"}},
               {2, "an unknown escape in the value of K", {"[G]\nK=a\\q\n", "[G]\nK=a\\\n"}},
               {2, "not valid UTF-8", {"[G]\nK=\xFF\n"}},
               {2, "a control character", {"[G]\n\r\n", std::string("[G]\nK=a\0b\n", 10)}},
               {2, "longer than 4096 bytes", {"[G]\nK=" + std::string(KeyFile::kMaxLine - 1, 'x')}},
               {KeyFile::kMaxKeys + 2, "more than 512 keys", {manyKeys}},
               {0, "larger than 64 KiB", {std::string(KeyFile::kMaxSize + 1, '\n')}}};
  KeyFileError error;
  for (const auto& [line, reason, texts] : cases) {
    for (const std::string& text : texts) {
      EXPECT_FALSE(KeyFile::parse(text, error)) << text;
      EXPECT_EQ(std::to_string(error.line) + ": " + error.reason, std::to_string(line) + ": " + reason);
    }
  }
  EXPECT_TRUE(KeyFile::parse("[G]\nK=" + std::string(KeyFile::kMaxLine - 2, 'x'), error)) << error.reason;
  EXPECT_TRUE(KeyFile::parse(std::string(KeyFile::kMaxSize, '\n'), error)) << error.reason;
}

TEST(KeyFile, ReadsNoMoreOfAFileThanItsLimit) {
  KeyFileError error;
  EXPECT_FALSE(KeyFile::read(Descriptor(open("/dev/zero", O_RDONLY | O_CLOEXEC)).get(), error));
  EXPECT_EQ(error.reason, "larger than 64 KiB");
  EXPECT_FALSE(KeyFile::read(-1, error));
  EXPECT_EQ(error.reason, "Bad file descriptor");
}

TEST(SizeText, RoundsAtTheBordersOfEveryUnit) {
  // clang-format off
  const std::pair<int64_t, const char*> cases[] = {
      {1, "1 byte"}, {999, "999 bytes"}, {1000, "1 KB"}, {1499, "1 KB"}, {1500, "2 KB"}, {999'499, "999 KB"},
      {999'500, "1 MB"}, {1'049'999, "1 MB"}, {-1'050'000, "-1.1 MB"}, {999'949'999, "999.9 MB"},
      {999'950'000, "1 GB"}, {1'004'999'999, "1 GB"}, {1'005'000'000, "1.01 GB"}, {999'995'000'000, "1 TB"},
      {INT64_MAX, "9.22 EB"}, {INT64_MIN, "-9.22 EB"}};
  // clang-format on
  for (const auto& [size, text] : cases) EXPECT_EQ(sizeText(size), text) << size;
}

TEST(StringTable, FallsFromCatalogueToEnglishToTheKey) {
  const TestTree tree;
  tree.file("po",
            "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n"
            "msgctxt \"DM_REMOVE\"\nmsgid \"Remove\"\nmsgstr \"L\xC3\xB6schen\"\n");
  shell("cd " + tree.path() + " && mkdir -p xx/LC_MESSAGES && msgfmt -o xx/LC_MESSAGES/larkspan-test.mo po");
  const StringTableEntry entries[] = {{"DM_REMOVE", "Remove"}, {"DM_OK", "OK"}};
  const StringTable table(entries, "larkspan-test", tree.path().c_str());
  EXPECT_EQ(table.text("DM_REMOVE"), "Remove") << "a program that never chose a language sees English";

  ASSERT_NE(setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
  setenv("LANGUAGE", "xx", 1);
  EXPECT_EQ(table.text("DM_REMOVE"), "L\xC3\xB6schen");
  EXPECT_EQ(table.text("DM_OK"), "OK");
  EXPECT_EQ(table.text("DM_NEW"), "DM_NEW");
  EXPECT_EQ(table.text(""), "") << "not the catalogue's header";
  unsetenv("LANGUAGE");
  setlocale(LC_MESSAGES, "C");
}

}  // namespace
}  // namespace larkspan::platform
