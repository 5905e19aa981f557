#include "larkspan/platform/files/FolderSize.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/platform/files/TestTree.h"

namespace larkspan::platform {
namespace {

/// What du(1) counts under the folder.
int64_t expected(const std::string& path) {
  struct stat own;
  EXPECT_EQ(0, ::stat(path.c_str(), &own));
  return std::atoll(shell("du -x -s --block-size=1 '" + path + "/.'").c_str()) - own.st_blocks * 512;
}

TEST(FolderSize, CountsWhatDuCounts) {
  TestTree tree;
  EXPECT_EQ(0, sizeFolder(tree.url()).bytes) << "an empty folder";
  for (const char* name : {"a", "a/b", "a/b/c", "wide"}) tree.folder(name);
  for (int i = 0; i < 300; ++i) tree.file("wide/" + std::to_string(i), std::string(i * 50, 'x'));
  tree.file("a/big", std::string(3'000'000, 'x'));
  ASSERT_EQ(0, ::link((tree / "a/big").c_str(), (tree / "a/b/again").c_str()));
  tree.link("/usr", "out");
  tree.link(std::string(2000, 'l'), "long link");
  ASSERT_EQ(0, ::mkfifo((tree / "fifo").c_str(), 0644));
  ASSERT_EQ(0, ::mknod((tree / "socket").c_str(), S_IFSOCK | 0644, 0));
  tree.file("sparse");
  ASSERT_EQ(0, ::truncate((tree / "sparse").c_str(), 1'000'000'000));

  WalkProgress progress;
  const FolderSizeResult result = sizeFolder(URL::file(tree.path(), true), {{}, &progress});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(expected(tree.path()), result.bytes);
  EXPECT_EQ(4 + 300 + 7, result.entries);
  EXPECT_EQ(0, result.unreadable + result.vanished);
  EXPECT_EQ(result.bytes, progress.bytes());
  EXPECT_EQ(result.entries, progress.entries());
  EXPECT_EQ(tree.path(), progress.currentFolder()) << "nobody had asked again";

  TestTree other;
  other.link(tree.path(), "root");
  EXPECT_EQ(result.bytes, sizeFolder(other.url("root")).bytes) << "the given root may be a link";
  EXPECT_EQ(ENOENT, sizeFolder(tree.url("missing")).status);
  EXPECT_EQ(ENOTDIR, sizeFolder(tree.url("sparse")).status);
  EXPECT_EQ(EINVAL, sizeFolder(*URL::parse("https://host/tmp")).status);
  progress.cancel();
  EXPECT_EQ(ECANCELED, sizeFolder(tree.url(), {{}, &progress}).status);
}

TEST(FolderSize, LeavesOutExcludedChildrenBySpelling) {
  TestTree tree;
  for (const char* name : {"in", "in/deep", "in/deep/er", "other"}) tree.folder(name);
  for (const char* name : {"in/deep/er/f", "in/deep/g", "other/h", "sp\xff ace"}) tree.file(name, "content");
  const int64_t all = sizeFolder(tree.url()).bytes;
  const auto sizeWithout = [&](std::vector<URL> urls) {
    return sizeFolder(tree.url(), {urls, nullptr}).bytes;
  };
  const auto block = [&](const std::string& name) { return all - sizeWithout({tree.url(name)}); };
  EXPECT_EQ(3 * 4096 + 2 * block("other/h"), block("in"));
  EXPECT_EQ(block("other/h"), block("sp\xff ace"));
  EXPECT_EQ(all - block("in/deep/er") - block("other"),
            sizeWithout({tree.url("in/deep/er"), tree.url("other")}));
  EXPECT_EQ(all - block("in"), sizeWithout({tree.url("in/deep/er/f"), tree.url("in")}));
  const std::string text(tree.url("in").absoluteString());
  for (const std::string& miss : {text + "/", text + "x", "file://localhost" + tree.path() + "/in",
                                  text + "/../other", tree.url().description() + "/%69n", text + "?q"}) {
    EXPECT_EQ(all, sizeWithout({*URL::parse(miss)})) << miss;
  }
  EXPECT_EQ(all, sizeWithout({tree.url(), URL::file("/")})) << "the folder itself is no child";
}

TEST(FolderSize, StaysOnTheMountOfTheFolder) {
  TestTree tree;
  tree.file("f");
  if (!tree.mountVolume()) GTEST_SKIP() << "no privilege to mount";
  tree.file("bound");
  ASSERT_EQ(0, ::mount((tree / "mount/inside").c_str(), (tree / "bound").c_str(), nullptr, MS_BIND, nullptr));
  const FolderSizeResult result = sizeFolder(tree.url());
  EXPECT_EQ(0, ::umount((tree / "bound").c_str()));
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(1, result.entries) << "neither the mounted volume nor the bound file";
  EXPECT_GE(sizeFolder(tree.url("mount")).bytes, 100000) << "a root on another mount is followed";
}

TEST(FolderSize, CountsWhatItCannotReadAndWhatVanishes) {
  TestTree tree;
  for (int i = 0; i < 40; ++i) tree.folder("d" + std::to_string(i));
  tree.folder("open");
  tree.file("open/f");
  std::atomic<bool> done = false;
  std::thread changer([&] {
    for (int i = 0; !done; i = (i + 1) % 40) {
      const std::string name = tree / ("d" + std::to_string(i));
      ::rmdir(name.c_str());
      ::mkdir(name.c_str(), 0755);
    }
  });
  int64_t vanished = 0;
  for (int i = 0; i < 20'000 && (vanished == 0 || i < 200); ++i) {
    const FolderSizeResult result = sizeFolder(tree.url());
    ASSERT_EQ(0, result.status);
    ASSERT_EQ(0, result.unreadable);
    vanished += result.vanished;
  }
  done = true;
  changer.join();
  EXPECT_GT(vanished, 0);

  ASSERT_EQ(0, ::chmod(tree.path().c_str(), 0755));
  ASSERT_EQ(0, ::chmod((tree / "open").c_str(), 0));
  const bool isRoot = ::geteuid() == 0 && ::seteuid(65534) == 0;
  const FolderSizeResult result = sizeFolder(tree.url());
  const FolderSizeResult root = sizeFolder(tree.url("open"));
  ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
  EXPECT_EQ(0, result.status);
  ASSERT_EQ(1, result.unreadable);
  EXPECT_EQ(tree / "open", result.firstUnreadable.at(0).path);
  EXPECT_EQ(EACCES, result.firstUnreadable[0].error);
  EXPECT_EQ(EACCES, root.status);
}

}  // namespace
}  // namespace larkspan::platform
