#include "larkspan/platform/files/CacheDirTag.h"
#include "larkspan/platform/files/Installed.h"
#include "larkspan/platform/files/LastUsed.h"
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
  const Date before = Date::now();
  tree.folder("d");
  for (const char* name : {"b\xff"
                           "d",
                           "x", "y.desktop"})
    tree.file(name, std::string(10'000, 'x'));
  ASSERT_EQ(0, ::symlink("x", (tree / "l").c_str()));
  ASSERT_EQ(0, ::chmod((tree / "x").c_str(), 0744));
  const struct timespec times[2] = {{1, 2}, {1'000'000'000, 123'456'789}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, (tree / "x").c_str(), times, 0));

  EXPECT_EQ("b\uFFFDd", valuesOf(tree.url("b\xff"
                                          "d"))
                            .localizedName);
  const ResourceValues x = valuesOf(tree.url("x"));
  EXPECT_EQ(12'288, x.totalAllocatedSize);
  EXPECT_EQ((Date{1'000'000'000, 123'456'789}), x.contentModificationDate);
  EXPECT_LT(before.seconds - 5, x.creationDate.value_or(before).seconds);
  const struct {
    const char* name;
    bool isDirectory, isApplication;
  } kinds[] = {{"d", true, false}, {"x", false, true}, {"y.desktop", false, true}, {"l", false, false}};
  for (const auto& kind : kinds) {
    EXPECT_EQ(kind.isDirectory, valuesOf(tree.url(kind.name)).isDirectory) << kind.name;
    EXPECT_EQ(kind.isApplication, valuesOf(tree.url(kind.name)).isApplication) << kind.name;
  }
  EXPECT_EQ("/", valuesOf(URL::file("/")).localizedName);

  ResourceValues untouched = x;
  EXPECT_EQ(ENOENT, FileFacts::current().read(tree.url("missing"), untouched)->code());
  EXPECT_EQ(EINVAL, FileFacts::current().read(*URL::parse("https://host/tmp"), untouched)->code());
  EXPECT_EQ("x", untouched.localizedName);
}

TEST(FileFacts, CanBeReplacedForATime) {
  struct NoFacts : FileFacts {
    std::optional<Error> read(const URL&, ResourceValues&) const override {
      return Error::posix(EIO, "here");
    }
  } noFacts;
  struct Epoch : LastUsed {
    std::optional<Date> lastUsedDate(const URL&) const override { return Date{}; }
  } epoch;
  const URL tmp = URL::file("/tmp");
  ResourceValues values;
  {
    const Installed<FileFacts> facts(noFacts);
    const Installed<LastUsed> use(epoch);
    EXPECT_EQ(EIO, FileFacts::current().read(tmp, values)->code());
    EXPECT_EQ(Date{}, LastUsed::current().lastUsedDate(tmp));
  }
  EXPECT_TRUE(valuesOf(tmp).isDirectory);
  EXPECT_FALSE(LastUsed::current().lastUsedDate(tmp));
}

TEST(CacheDirTag, IsARegularFileThatBeginsWithTheSignature) {
  TestTree tree;
  const std::string signature(kCacheDirTagSignature);
  ASSERT_EQ(43u, signature.size());
  for (const char* name : {"exact", "more", "short", "wrong", "link", "fifo", "none"}) tree.folder(name);
  tree.file("exact/CACHEDIR.TAG", signature);
  tree.file("more/CACHEDIR.TAG", signature + "\n# a comment\n");
  tree.file("short/CACHEDIR.TAG", signature.substr(0, 42));
  tree.file("wrong/CACHEDIR.TAG", " " + signature);
  ASSERT_EQ(0, ::symlink("../exact/CACHEDIR.TAG", (tree / "link/CACHEDIR.TAG").c_str()));
  ASSERT_EQ(0, ::mkfifo((tree / "fifo/CACHEDIR.TAG").c_str(), 0644));
  for (const char* name : {"exact", "more"}) EXPECT_TRUE(hasCacheDirTag(tree.url(name))) << name;
  for (const char* name : {"short", "wrong", "link", "fifo", "none", "missing"}) {
    EXPECT_FALSE(hasCacheDirTag(tree.url(name))) << name;
  }
}

}  // namespace
}  // namespace larkspan::platform
