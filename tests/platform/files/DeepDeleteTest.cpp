#include "larkspan/platform/base/Value.h"
#include "larkspan/platform/files/DeepDelete.h"
#include "larkspan/platform/files/FolderSize.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/platform/files/TestTree.h"

namespace larkspan::platform {
namespace {

class DeepDelete : public testing::TestWithParam<FolderOpening> {
 protected:
  DeepDeleteResult remove(std::vector<URL> items, WalkProgress* progress = nullptr) const {
    return deepDelete(items, {progress, GetParam()});
  }
};

INSTANTIATE_TEST_SUITE_P(Openings, DeepDelete,
                         testing::Values(FolderOpening::automatic, FolderOpening::components),
                         [](const auto& opening) { return opening.index ? "Components" : "Automatic"; });

int64_t causeOf(const DeepDeleteResult& result) {
  return result.error ? result.error->userInfo().get(kFirstCauseKey).error()->code() : 0;
}

TEST_P(DeepDelete, RemovesItemsOfAnyKindWithAllBeneathThem) {
  TestTree tree;
  for (const char* name : {"kept", "a", "a/b", "a/b/c", "odd"}) tree.folder(name);
  for (const char* name : {"kept/f", "a/f", "a/b/c/g", "plain"}) tree.file(name);
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') tree.folder("odd/" + std::string(2, static_cast<char>(byte)) + "x");
  }
  for (const char* name : {"link", "a/link"}) tree.link(tree / "kept", name);
  ASSERT_EQ(0, ::mkfifo((tree / "a/fifo").c_str(), 0644));
  WalkProgress progress;
  const DeepDeleteResult result =
      remove({tree.url("a"), tree.url("plain"), URL::file(tree / "link", true), tree.url("odd")}, &progress);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(7 + 1 + 1 + 255, result.removed);
  EXPECT_EQ(result.removed, progress.entries());
  EXPECT_EQ("./kept ./kept/f ", tree.list());
}

TEST_P(DeepDelete, RefusesWhatMustStayAndGoesOn) {
  TestTree tree;
  tree.folder("a");
  tree.file("a/f");
  tree.file("last");
  const DeepDeleteResult result =
      remove({*URL::parse("file:///"), *URL::parse("file:////"), tree.url("a/."), tree.url("a/.."),
              tree.url("a/../"), *URL::parse("https://host" + tree.path()), tree.url("missing"),
              tree.url("missing/x"), tree.url("last")});
  EXPECT_EQ(1, result.removed);
  EXPECT_EQ(8, result.failed);
  ASSERT_TRUE(result.error);
  EXPECT_EQ(kDeletionErrorDomain, result.error->domain());
  EXPECT_EQ(8, result.error->userInfo().get(kFailedCountKey).integerValue());
  EXPECT_EQ(EINVAL, causeOf(result));
  EXPECT_EQ("1 entries were removed, 8 could not be: /: Invalid argument",
            result.error->localizedDescription());
  EXPECT_EQ("./a ./a/f ", tree.list());
}

TEST_P(DeepDelete, NeverCrossesAMount) {
  TestTree tree;
  for (const char* name : {"a", "z"}) tree.folder(name);
  if (!tree.mountVolume()) GTEST_SKIP() << "no privilege to mount";
  for (const char* name : {"a/f", "bound", "z/f"}) tree.file(name);
  ASSERT_EQ(0, ::mount((tree / "a").c_str(), (tree / "z").c_str(), nullptr, MS_BIND, nullptr));
  EXPECT_EQ(EBUSY, causeOf(remove({tree.url("mount")})));
  EXPECT_EQ(EBUSY, causeOf(emptyFolder(tree.url("mount"), {}, {nullptr, GetParam()})));
  EXPECT_EQ(EBUSY, causeOf(remove({tree.url("z")}))) << "the same volume bound again";
  const DeepDeleteResult result = remove({tree.url()});
  EXPECT_EQ(3, result.removed);
  EXPECT_EQ(2, result.failed);
  EXPECT_EQ("./mount ./mount/inside ./z ", tree.list());
  EXPECT_EQ(0, ::umount((tree / "z").c_str()));
  EXPECT_TRUE(tree.has("z/f"));
}

TEST_P(DeepDelete, TakesAnyDepthWithFewDescriptorsAndASmallStackAsSizingDoes) {
  TestTree tree(TestTree::kInMemory);
  tree.chain(20'000);
  runStarved([&] {
    EXPECT_EQ(20'001, sizeFolder(tree.url()).entries);
    const DeepDeleteResult result = remove({tree.url("d")});
    EXPECT_FALSE(result.error) << result.error->description();
    EXPECT_EQ(20'001, result.removed);
  });
  EXPECT_EQ("", tree.list());
}

TEST_P(DeepDelete, NeverLeavesATreeWhoseFoldersAreSwappedForLinks) {
  constexpr int kRounds = 150, kFolders = 40;
  TestTree outside(TestTree::kInMemory), tree(TestTree::kInMemory);
  outside.folder("s");
  for (const char* name : {"f", "s/f"}) outside.file(name);
  const std::string before = outside.list();
  const auto victim = [&](int round, int i) { return std::to_string(round) + "/v/" + std::to_string(i); };
  const auto link = [&](int round, int i) { return std::to_string(round) + "/" + std::to_string(i); };
  const int at = ::open(tree.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  // The round the attacker swaps in, and the one in which it has begun.
  std::atomic<int> wanted = -1, begun = -1;
  int64_t swaps = 0, removed = 0;
  std::thread attacker([&] {
    for (int round; (round = wanted) < kRounds; begun = round) {
      for (int i = 0; i < kFolders && round >= 0; ++i) {
        const std::string folder = victim(round, i), other = link(round, i);
        for (int swap = 0; swap < 8; ++swap) {
          swaps += ::renameat2(at, folder.c_str(), at, other.c_str(), RENAME_EXCHANGE) == 0;
        }
      }
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    tree.folder(std::to_string(round));
    tree.folder(std::to_string(round) + "/v");
    for (int i = 0; i < kFolders; ++i) {
      tree.folder(victim(round, i));
      tree.file(victim(round, i) + "/f", "");
      tree.link(outside.path(), link(round, i));
    }
    wanted = round;
    while (begun != round) std::this_thread::yield();
    removed += remove({tree.url(std::to_string(round) + "/v")}).removed;
  }
  wanted = kRounds;
  attacker.join();
  ::close(at);
  EXPECT_GT(removed, kRounds * kFolders);
  EXPECT_GT(swaps, kRounds * kFolders);
  EXPECT_EQ(before, outside.list());
}

TEST_P(DeepDelete, StopsWhenCancelled) {
  TestTree tree(TestTree::kInMemory);
  tree.folder("a");
  for (int i = 0; i < 20'000; ++i) tree.file("a/" + std::to_string(i), "");
  WalkProgress progress;
  std::thread canceller([&] {
    while (progress.entries() < 5) std::this_thread::yield();
    progress.cancel();
  });
  const DeepDeleteResult result = remove({tree.url("a")}, &progress);
  canceller.join();
  ASSERT_TRUE(result.error);
  EXPECT_EQ(-128, result.error->code());
  EXPECT_EQ(result.removed, result.error->userInfo().get(kRemovedCountKey).integerValue());
  EXPECT_GE(result.removed, 5);
  EXPECT_EQ(tree / "a", progress.currentFolder());
}

TEST_P(DeepDelete, EmptiesAFolderButKeepsNames) {
  TestTree tree;
  for (const char* name : {"c", "c/d", "c/d/CACHEDIR.TAG", "c/kept"}) tree.folder(name);
  for (const char* name : {"c/CACHEDIR.TAG", "c/f", "c/d/g", "c/kept/h"}) tree.file(name);
  tree.link("c", "link");
  const std::vector<std::string> keep = {"CACHEDIR.TAG", "kept"};
  const DeepDeleteOptions options{nullptr, GetParam()};
  EXPECT_EQ(ENOTDIR, causeOf(emptyFolder(tree.url("link"), keep, options)));
  EXPECT_EQ(ENOTDIR, causeOf(emptyFolder(tree.url("c/f"), keep, options)));
  EXPECT_EQ(EINVAL, causeOf(emptyFolder(URL::file("/"), keep, options)));
  EXPECT_EQ(ENOENT, causeOf(emptyFolder(tree.url("missing"), keep, options)));
  const DeepDeleteResult result = emptyFolder(tree.url("c"), keep, options);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(4, result.removed);
  EXPECT_EQ("./c ./c/CACHEDIR.TAG ./c/kept ./c/kept/h ./link ", tree.list());
}

}  // namespace
}  // namespace larkspan::platform
