#include "larkspan/platform/desktop/LastUsed.h"
#include "larkspan/platform/desktop/RecentFiles.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

namespace larkspan::platform {
namespace {

using tests::ManifestTree;
using tests::ScopedVariable;

std::string bookmark(const std::string& url, const std::string& attributes) {
  return "<bookmark href=\"" + url + "\" " + attributes + "><info/></bookmark>";
}

TEST(RecentFiles, TakesWhatIsSoundAndSkipsTheRest) {
  const std::string list =
      "<?xml version=\"1.0\"?><!DOCTYPE xbel><xbel version=\"1.0\">" +
      bookmark("file:///home/a/x%20y/f",
               "added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-03T00:00:00.25Z\" "
               "visited=\"2024-01-02T00:00:00Z\"") +
      "<bookmark:application name=\"file:///home/b\" modified=\"2025-01-01T00:00:00Z\"/>"
      "<!-- " +
      bookmark("file:///home/c", "added='2024-01-01T00:00:00Z'") + " --><![CDATA[" +
      bookmark("file:///home/c", "added='2024-01-01T00:00:00Z'") + "]]>" +
      "<bookmark\n added = '2024-02-01T00:00:00Z'\thref='file:///home/a&amp;b&#x2F;&#47;g&apos;'/>" +
      bookmark("https://host/home/d", "added='2024-01-01T00:00:00Z'") +
      bookmark("file:///home/d", "added='soon'") +
      bookmark("file:///home/&evil;d", "added='2024-01-01T00:00:00Z'") +
      bookmark("file:///home/e", "added=2024-01-01T00:00:00Z") +
      "<bookmark href='file:///home/late' added='2020-01-";
  const RecentFiles files(list);
  EXPECT_EQ(2u, files.size());
  const Date third{1'704'240'000, 250'000'000}, february{1'706'745'600, 0};
  // clang-format off
  const std::pair<const char*, std::optional<Date>> cases[] = {
      {"/home/a", third}, {"/home/a/x y/f", third}, {"/home/a/x y/", third}, {"/home/a&b", february},
      {"/home", february}, {"/", february}, {"", february}, {"/home/a/x", {}}, {"/home/b", {}}, {"/home/c", {}},
      {"/home/d", {}}, {"/home/e", {}}};
  // clang-format on
  for (const auto& [path, date] : cases) EXPECT_EQ(files.lastUsed(path), date) << path;
  for (std::size_t size = 0; size < list.size(); ++size) {
    EXPECT_LE(RecentFiles(std::string_view(list).substr(0, size)).size(), 2u) << size;
  }
}

TEST(LastUsed, ReadsTheListAgainWhenItHasChanged) {
  ManifestTree tree;
  const ScopedVariable data("XDG_DATA_HOME", tree.root.c_str());
  const URL folder = URL::file("/home/a", true);
  const auto& lastUsed = LastUsed::current();
  EXPECT_FALSE(lastUsed.lastUsedDate(folder));
  const auto write = [&](const std::string& text) {
    std::filesystem::rename(tree.write("new", text), tree.path("recently-used.xbel"));
  };
  write(bookmark("file:///home/a/f", "visited='2024-02-01T00:00:00Z'"));
  EXPECT_EQ(lastUsed.lastUsedDate(folder), (Date{1'706'745'600, 0}));
  write(bookmark("file:///home/a/f", "visited='2024-02-01T00:00:01Z'"));
  EXPECT_EQ(lastUsed.lastUsedDate(folder), (Date{1'706'745'601, 0}));
  EXPECT_FALSE(lastUsed.lastUsedDate(*URL::parse("https://host/home/a")));
}

}  // namespace
}  // namespace larkspan::platform
