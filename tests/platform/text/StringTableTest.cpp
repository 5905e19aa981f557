#include "larkspan/platform/text/StringTable.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

/// A catalogue of one message in the binary format of gettext (see "The Format of GNU MO Files").
std::string catalogue(const std::string& message, const std::string& translation) {
  const std::string header = "Content-Type: text/plain; charset=UTF-8\n";
  const auto size = [](const std::string& s) { return static_cast<uint32_t>(s.size()); };
  const uint32_t texts = 28 + 4 * 8;
  const uint32_t translations = texts + 1 + size(message) + 1;
  const uint32_t words[] = {0x950412de,
                            0,
                            2,
                            28,
                            44,
                            0,
                            0,
                            0,
                            texts,
                            size(message),
                            texts + 1,
                            size(header),
                            translations,
                            size(translation),
                            translations + size(header) + 1};
  std::string file(reinterpret_cast<const char*>(words), sizeof words);
  const std::string nul(1, '\0');
  return file + nul + message + nul + header + nul + translation + nul;
}

TEST(StringTable, FallsFromCatalogueToEnglishToTheKey) {
  char folder[] = "/tmp/larkspan-texts-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  std::string path = folder;
  for (const char* part : {"/xx", "/LC_MESSAGES"}) ASSERT_EQ(mkdir((path += part).c_str(), 0700), 0);
  const std::string file = path + "/larkspan-test.mo";
  std::ofstream(file) << catalogue("DM_REMOVE\004Remove", "L\xC3\xB6schen");

  const StringTableEntry entries[] = {{"DM_REMOVE", "Remove"}, {"DM_OK", "OK"}};
  const StringTable table(entries, "larkspan-test", folder);
  EXPECT_EQ(table.text("DM_REMOVE"), "Remove") << "a program that never chose a language sees English";

  ASSERT_NE(setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
  setenv("LANGUAGE", "xx", 1);
  EXPECT_EQ(table.text("DM_REMOVE"), "L\xC3\xB6schen");
  EXPECT_EQ(table.text("DM_OK"), "OK");
  EXPECT_EQ(table.text("DM_NEW"), "DM_NEW");
  EXPECT_EQ(table.text(""), "") << "not the catalogue's header";
  unsetenv("LANGUAGE");
  setlocale(LC_MESSAGES, "C");

  unlink(file.c_str());
  for (; path.size() >= sizeof folder - 1; path.resize(path.rfind('/'))) rmdir(path.c_str());
}

}  // namespace
}  // namespace larkspan::platform
