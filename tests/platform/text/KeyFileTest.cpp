#include "larkspan/platform/text/KeyFile.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

TEST(KeyFile, ReadsGroupsTextsListsAndFlags) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "# comment\n\n[Storage Extension]\nName = Photos \nExec=/bin/a\\sb\\\\c\\n\\t\nEmpty=\n"
      "List=a\\;b;;c d;\nOne=x\nOn=true\nOff=false\nOdd=yes\n \t\n[Other]\nName=\xC3\xA9",
      error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  EXPECT_TRUE(file->hasGroup("Other"));
  EXPECT_FALSE(file->hasGroup("other"));
  EXPECT_EQ(file->string("Storage Extension", "Name"), "Photos");
  EXPECT_EQ(file->string("Storage Extension", "Exec"), "/bin/a b\\c\n\t");
  EXPECT_EQ(file->string("Storage Extension", "Empty"), "");
  EXPECT_EQ(file->string("Storage Extension", "Missing"), std::nullopt);
  EXPECT_EQ(file->string("Other", "Name"), "\xC3\xA9");
  EXPECT_EQ(file->string("Other", "Exec"), std::nullopt);
  using List = std::vector<std::string>;
  EXPECT_EQ(file->list("Storage Extension", "List"), (List{"a;b", "", "c d"}));
  EXPECT_EQ(file->list("Storage Extension", "One"), List{"x"});
  EXPECT_EQ(file->list("Storage Extension", "Empty"), List{});
  EXPECT_EQ(file->list("Storage Extension", "Missing"), std::nullopt);
  EXPECT_EQ(file->boolean("Storage Extension", "On"), true);
  EXPECT_EQ(file->boolean("Storage Extension", "Off"), false);
  EXPECT_EQ(file->boolean("Storage Extension", "Odd"), std::nullopt);
}

TEST(KeyFile, PicksTheTextThatFitsTheLocaleBest) {
  KeyFileError error;
  const auto file = KeyFile::parse(
      "[G]\nK=plain\nK[sr]=sr\nK[sr@Latn]=sr@Latn\nK[sr_YU.UTF-8]=sr_YU\nK[sr_YU@Latn]=sr_YU@Latn\nL[de]="
      "de\n",
      error);
  ASSERT_TRUE(file) << error.line << ": " << error.reason;
  const struct {
    const char *locale, *text;
  } cases[] = {{"sr_YU.ISO-8859-5@Latn", "sr_YU@Latn"},
               {"sr_YU.UTF-8", "sr_YU"},
               {"sr_YU@Cyrl", "sr_YU"},
               {"sr_RS@Latn", "sr@Latn"},
               {"sr@Cyrl", "sr"},
               {"sr", "sr"},
               {"s", "plain"},
               {"C", "plain"},
               {"", "plain"}};
  for (const auto& c : cases) EXPECT_EQ(file->localizedString("G", "K", c.locale), c.text) << c.locale;
  EXPECT_EQ(file->localizedString("G", "L", "de_AT"), "de");
  EXPECT_EQ(file->localizedString("G", "L", "fr"), std::nullopt);
}

TEST(KeyFile, RefusesWhatIsMalformedAndNamesTheLine) {
  std::string manyKeys = "[G]\n";
  for (std::size_t i = 0; i <= KeyFile::kMaxKeys; ++i) manyKeys += "K" + std::to_string(i) + "=\n";
  const struct {
    std::string text;
    std::size_t line;
    const char* reason;
  } cases[] = {
      {"K=v\n", 1, "a key before the first group"},
      {"#\n[G]\nnonsense\n", 3, "neither a group, a key nor a comment"},
      {"[G\n", 1, "a malformed group header"},
      {"[]\n", 1, "a malformed group header"},
      {"[a[b]\n", 1, "a malformed group header"},
      {"[G] x\n", 1, "a malformed group header"},
      {"[\xC3\xA9]\n", 1, "a malformed group header"},
      {"[G]\n[H]\n[G]\n", 3, "the group G stands here again"},
      {"[G]\n=v\n", 2, "a malformed key"},
      {"[G]\nK_=v\n", 2, "a malformed key"},
      {"[G]\n K=v\n", 2, "a malformed key"},
      {"[G]\nK[de=v\n", 2, "a malformed key"},
      {"[G]\nK[]=v\n", 2, "a malformed locale"},
      {"[G]\nK[@x]=v\n", 2, "a malformed locale"},
      {"[G]\nK[d e]=v\n", 2, "a malformed locale"},
      {"[G]\nK=v\nK=w\n", 3, "the key K stands here again"},
      {"[G]\nK[de]=v\n\nK[de.UTF-8]=w\n", 4, "the key K stands here again"},
      {"[G]\nK=a\\q\n", 2, "an unknown escape in the value of K"},
      {"[G]\nK=a\\\n", 2, "an unknown escape in the value of K"},
      {"[G]\nK=\xFF\n", 2, "not valid UTF-8"},
      {"[G]\r\n", 1, "a control character"},
      {std::string("[G]\nK=a\0b\n", 10), 2, "a control character"},
      {"[G]\nK=" + std::string(KeyFile::kMaxLine - 1, 'x'), 2, "longer than 4096 bytes"},
      {manyKeys, KeyFile::kMaxKeys + 2, "more than 512 keys"},
      {std::string(KeyFile::kMaxSize + 1, '\n'), 0, "larger than 64 KiB"},
  };
  for (const auto& c : cases) {
    KeyFileError error;
    EXPECT_FALSE(KeyFile::parse(c.text, error)) << c.text;
    EXPECT_EQ(error.line, c.line) << c.text.substr(0, 40);
    EXPECT_EQ(error.reason, c.reason) << c.text.substr(0, 40);
  }
  KeyFileError error;
  EXPECT_TRUE(KeyFile::parse("[G]\nK=" + std::string(KeyFile::kMaxLine - 2, 'x'), error)) << error.reason;
  EXPECT_TRUE(KeyFile::parse(std::string(KeyFile::kMaxSize, '\n'), error)) << error.reason;
}

TEST(KeyFile, ReadsNoMoreOfAFileThanItsLimit) {
  const int file = memfd_create("key-file", MFD_CLOEXEC);
  ASSERT_EQ(write(file, "[G]\nK=v\n", 8), 8);
  ASSERT_EQ(lseek(file, 0, SEEK_SET), 0);
  KeyFileError error;
  const auto read = KeyFile::read(file, error);
  EXPECT_EQ(read ? read->string("G", "K") : error.reason, "v");
  ASSERT_EQ(ftruncate(file, off_t{1} << 40), 0);
  ASSERT_EQ(lseek(file, 0, SEEK_SET), 0);
  EXPECT_FALSE(KeyFile::read(file, error));
  EXPECT_EQ(error.reason, "larger than 64 KiB");
  close(file);
  EXPECT_FALSE(KeyFile::read(file, error));
  EXPECT_EQ(error.reason, "Bad file descriptor");
}

}  // namespace
}  // namespace larkspan::platform
