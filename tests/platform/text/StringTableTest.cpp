#include "larkspan/platform/text/StringTable.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/platform/files/TestTree.h"

namespace larkspan::platform {
namespace {

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
