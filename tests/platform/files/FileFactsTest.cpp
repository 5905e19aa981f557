#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

namespace larkspan::platform {
namespace {

ResourceValues valuesOf(const URL& url) {
  ResourceValues values;
  EXPECT_FALSE(FileFacts::current().read(url, values)) << url.description();
  return values;
}

TEST(FileFacts, TellsOfTheEntryItself) {
  TestTree tree;
  tree.folder("d");
  for (const char* name : {"b\377d", "x", "y.desktop"}) tree.file(name, std::string(10'000, 'x'));
  tree.link("x", "l");
  ASSERT_EQ(0, ::chmod((tree / "x").c_str(), 0744));
  const struct timespec times[2] = {{1, 2}, {1'000'000'000, 123'456'789}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, (tree / "x").c_str(), times, 0));

  EXPECT_EQ("b\uFFFDd", valuesOf(tree.url("b\377d")).localizedName);
  const ResourceValues x = valuesOf(tree.url("x"));
  EXPECT_EQ(12'288, x.totalAllocatedSize);
  EXPECT_EQ((Date{1'000'000'000, 123'456'789}), x.contentModificationDate);
  struct statx facts;
  ASSERT_EQ(0, ::statx(AT_FDCWD, (tree / "x").c_str(), 0, STATX_BTIME, &facts));
  EXPECT_EQ(facts.stx_mask & STATX_BTIME ? std::optional(dateOf(facts.stx_btime)) : std::nullopt,
            x.creationDate);
  tree.file("app.desktop", "[Desktop Entry]\nType=Application\nName=Shown\nName[de]=Gezeigt\n");
  tree.file("page.desktop", "[Desktop Entry]\nType=Link\nName=\n");
  tree.link("app.desktop", "l.desktop");
  ASSERT_EQ(0, ::mkfifo((tree / "fifo.desktop").c_str(), 0644));
  for (const std::string name :
       {"d", "x", "l", "y.desktop", "app.desktop", "page.desktop", "l.desktop", "fifo.desktop"}) {
    const ResourceValues values = valuesOf(tree.url(name));
    EXPECT_EQ(name == "d", values.isDirectory) << name;
    EXPECT_EQ(name == "x" || name == "app.desktop", values.isApplication) << name;
    EXPECT_EQ(name == "app.desktop" ? "Shown" : name, values.localizedName);
  }
  EXPECT_EQ("/", valuesOf(URL::file("/")).localizedName);

  ResourceValues untouched = x;
  EXPECT_EQ(ENOENT, FileFacts::current().read(tree.url("missing"), untouched)->code());
  EXPECT_EQ("x", untouched.localizedName);
}

}  // namespace
}  // namespace larkspan::platform
