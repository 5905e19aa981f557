#include "larkspan/platform/text/KeyFile.h"
#include "larkspan/platform/text/SizeText.h"
#include "larkspan/platform/text/StringTable.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <string>

#include <sys/mman.h>

namespace larkspan::platform {
namespace {

TEST(KeyFile, ReadsGroupsTextsListsAndFlags) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "# comment\n\n[Storage Extension]\nName = Photos \nExec=/bin/a\\sb\\\\c\\n\\t\nEmpty=\n"
      "List=a\\;b;;c d;\nOn=true\nOff=false\nOdd=yes\n \t\n[Other]\nName=\xC3\xA9",
      error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  EXPECT_TRUE(file->hasGroup("Other"));
  EXPECT_FALSE(file->hasGroup("other"));
  const std::pair<const char*, std::optional<std::string>> texts[] = {{"Name", "Photos"},
                                                                      {"Exec", "/bin/a b\\c\n\t"},
                                                                      {"Empty", ""},
                                                                      {"List", "a;b;;c d;"},
                                                                      {"Missing", std::nullopt}};
  for (const auto& [key, text] : texts) EXPECT_EQ(file->string("Storage Extension", key), text);
  EXPECT_EQ(file->string("Other", "Name"), "\xC3\xA9");
  EXPECT_EQ(file->string("Other", "Exec"), std::nullopt);
  const std::pair<const char*, std::optional<bool>> flags[] = {
      {"On", true}, {"Off", false}, {"Odd", std::nullopt}};
  for (const auto& [key, flag] : flags) EXPECT_EQ(file->boolean("Storage Extension", key), flag);
}

TEST(KeyFile, PicksTheTextThatFitsTheLocaleBest) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "[G]\nK=plain\nK[sr]=sr\nK[sr@Latn]=sr@Latn\nK[sr_YU.UTF-8]=sr_YU\nK[sr_YU@Latn]=sr_YU@Latn\n"
      "L[de]=de\n",
      error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  const std::pair<const char*, std::vector<const char*>> cases[] = {{"sr_YU@Latn", {"sr_YU.ISO-8859-5@Latn"}},
                                                                    {"sr_YU", {"sr_YU.UTF-8", "sr_YU@Cyrl"}},
                                                                    {"sr@Latn", {"sr_RS@Latn"}},
                                                                    {"sr", {"sr@Cyrl", "sr"}},
                                                                    {"plain", {"s", "C", ""}}};
  for (const auto& [text, locales] : cases) {
    for (const char* locale : locales) EXPECT_EQ(file->localizedString("G", "K", locale), text) << locale;
  }
  EXPECT_EQ(file->localizedString("G", "L", "de_AT"), "de");
  EXPECT_EQ(file->localizedString("G", "L", "fr"), std::nullopt);
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
  const int file = memfd_create("key-file", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, off_t{1} << 40), 0);
  KeyFileError error;
  EXPECT_FALSE(KeyFile::read(file, error));
  EXPECT_EQ(error.reason, "larger than 64 KiB");
  close(file);
  EXPECT_FALSE(KeyFile::read(file, error));
  EXPECT_EQ(error.reason, "Bad file descriptor");
}

TEST(SizeText, RoundsAtTheBordersOfEveryUnit) {
  const std::pair<const char*, std::vector<int64_t>> cases[] = {{"1 byte", {1}},
                                                                {"-1.1 MB", {-1'050'000}},
                                                                {"999 bytes", {999}},
                                                                {"1 KB", {1000, 1499}},
                                                                {"2 KB", {1500}},
                                                                {"999 KB", {999'499}},
                                                                {"1 MB", {999'500, 1'049'999}},
                                                                {"999.9 MB", {999'949'999}},
                                                                {"1 GB", {999'950'000, 1'004'999'999}},
                                                                {"1.01 GB", {1'005'000'000}},
                                                                {"1 TB", {999'995'000'000}},
                                                                {"9.22 EB", {INT64_MAX}},
                                                                {"-9.22 EB", {INT64_MIN}}};
  for (const auto& [text, sizes] : cases) {
    for (const int64_t size : sizes) EXPECT_EQ(sizeText(size), text) << size;
  }
}

/// A catalogue of one message in the binary format of gettext (see "The Format of GNU MO Files").
std::string catalogue(const std::string& message, const std::string& translation) {
  const std::string header = "Content-Type: text/plain; charset=UTF-8\n";
  const std::size_t texts = 28 + 4 * 8, translations = texts + 1 + message.size() + 1;
  std::string file;
  const auto append = [&file](auto... words) {
    for (const uint32_t word : {static_cast<uint32_t>(words)...}) {
      file.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
  };
  append(0x950412de, 0, 2, 28, 44, 0, 0, 0, texts, message.size(), texts + 1, header.size());
  append(translations, translation.size(), translations + header.size() + 1);
  const std::string nul(1, '\0');
  return file + nul + message + nul + header + nul + translation + nul;
}

TEST(StringTable, FallsFromCatalogueToEnglishToTheKey) {
  const TestTree tree;
  for (const char* folder : {"xx", "xx/LC_MESSAGES"}) tree.folder(folder);
  tree.file("xx/LC_MESSAGES/larkspan-test.mo", catalogue("DM_REMOVE\004Remove", "L\xC3\xB6schen"));
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
