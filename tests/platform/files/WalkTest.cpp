#include "larkspan/fs/DirectorySize.h"
#include "larkspan/platform/base/Value.h"
#include "larkspan/platform/files/DeepDelete.h"
#include "larkspan/platform/files/DirectoryStack.h"
#include "larkspan/platform/files/FolderSize.h"
#include "tests/platform/files/TestTree.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

namespace larkspan::platform {
namespace {

TEST(DirectoryStack, FindsClosedLevelsAgainOnlyWhereTheyAreTheSame) {
  for (const FolderOpening opening : {FolderOpening::automatic, FolderOpening::components}) {
    TestTree tree;
    tree.chain(60);
    tree.folder("elsewhere");
    struct statx facts, middleFacts;
    Descriptor root(::open(tree.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(0, factsAt(root.get(), "", facts));
    uint64_t mount;
    EXPECT_TRUE(mountFromProc(root.get(), mount) == 0 && mount == mountOf(facts));
    DirectoryStack stack({std::move(root), tree.path()}, mountOf(facts), opening);
    std::string middle;  // Level 30: long closed when the walk is at level 60.
    while (stack.depth() < 61) {
      if (stack.depth() == 31) middle = stack.pathOf("");
      ASSERT_EQ(0, stack.enter("d", stack.depth() == 30 ? middleFacts : facts));
    }
    ASSERT_EQ(0, ::rename((middle + "/d").c_str(), (tree / "elsewhere/d").c_str()));
    while (stack.depth() > 31) stack.leave();
    ASSERT_GE(stack.top(), 0) << "what was left is elsewhere, but the names still lead to level 30";
    ASSERT_EQ(0, factsAt(stack.top(), "", facts));
    EXPECT_EQ(middleFacts.stx_ino, facts.stx_ino);
    // Now the way up leads elsewhere, and the way down by names into a new chain.
    ASSERT_EQ(0, ::rename((tree / "d/d/d").c_str(), (tree / "elsewhere/again").c_str()));
    ASSERT_EQ(0, ::rename((tree / "d").c_str(), (tree / "moved").c_str()));
    tree.chain(40);
    while (stack.depth() > 3) stack.leave();
    EXPECT_EQ(-1, stack.top());
    EXPECT_EQ(ESTALE, stack.enter("d", facts));
    while (stack.depth() > 1) stack.leave();
    EXPECT_GE(stack.top(), 0) << "the start stays open";
  }
}

/// Fills the open folder at random: files of all kinds, holes, links of both kinds, folders within folders.
void fill(int folder, std::minstd_rand& random, int depth) {
  const auto chance = [&](int of) { return random() % of == 0; };
  const int count = chance(200) ? 600 : static_cast<int>(random() % 12);
  std::string file;
  for (int i = 0; i < count; ++i) {
    const std::string name = std::to_string(i) + static_cast<char>(128 + random() % 127);
    if (depth > 0 && chance(4)) {
      ASSERT_EQ(0, ::mkdirat(folder, name.c_str(), 0755));
      const Descriptor inner(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      fill(inner.get(), random, depth - 1);
    } else if (!file.empty() && chance(5)) {
      ASSERT_EQ(0, ::linkat(folder, file.c_str(), folder, name.c_str(), 0));
    } else if (chance(10)) {
      ASSERT_EQ(0, ::symlinkat("/usr", folder, name.c_str()));
    } else if (chance(10)) {
      ASSERT_EQ(0, ::mknodat(folder, name.c_str(), (chance(2) ? S_IFSOCK : S_IFIFO) | 0644, 0));
    } else {
      const Descriptor made(::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      ASSERT_EQ(0, chance(3) ? ::posix_fallocate(made.get(), 0, 1 + random() % 20'000) : 0);
      ASSERT_EQ(0, chance(8) ? ::ftruncate(made.get(), 10'000'000) : 0);
      file = name;
    }
  }
}

TEST(FolderSize, EqualsDuOnHundredsOfTreesAndSharesItOutAmongFolders) {
  TestTree tree(TestTree::kInMemory);
  std::minstd_rand random(20'261'122);
  for (int i = 0; i < 300; ++i) {
    tree.folder(std::to_string(i));
    const Descriptor folder(::open((tree / std::to_string(i)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fill(folder.get(), random, static_cast<int>(random() % 3));
  }
  const FolderSizeResult whole = sizeFolder(tree.url(), {{}, nullptr, 2});
  std::map<std::string, int64_t> bytesOf;
  int64_t entries = 0;
  for (const auto& folder : whole.folders) {
    if (folder.depth != 1) continue;
    bytesOf[folder.name] = folder.bytes;
    entries += folder.entries;
  }
  EXPECT_EQ(300u, bytesOf.size());
  EXPECT_EQ(whole.entries, entries);
  EXPECT_GT(entries, 5'000);
  std::istringstream lines(shell("cd " + tree.path() + " && du -xB1 --max-depth=1 */"));
  int64_t bytes;
  for (std::string path; lines >> bytes >> path;) {
    if (path.find('/') + 1 != path.size()) continue;
    path.pop_back();
    EXPECT_EQ(bytes, sizeFolder(tree.url(path)).bytes + tree.allocated(path)) << path;
    EXPECT_EQ(bytes, bytesOf[path]) << path;
  }
  EXPECT_EQ(
      shell("du -xsB1 /usr"),
      std::to_string(sizeFolder(URL::file("/usr")).bytes + tree.allocated("../../../usr")) + "\t/usr\n");
}

TEST(FolderSize, SharesOneHugeFolderAndCountsEachInodeOnce) {
  constexpr int kFiles = 280'000;
  TestTree tree(TestTree::kInMemory), other;
  EXPECT_EQ(0, sizeFolder(tree.url()).bytes) << "an empty folder";
  tree.folder("d");
  tree.file("linked", std::string(100'000, 'x'));
  const Descriptor folder(::open((tree / "d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < kFiles; ++i) {
    const std::string name = std::to_string(i);
    const bool linked =
        i % 2 && ::linkat(AT_FDCWD, (tree / "linked").c_str(), folder.get(), name.c_str(), 0) == 0;
    if (!linked) {
      ASSERT_EQ(0, ::mknodat(folder.get(), name.c_str(), S_IFREG | 0644, 0));
    }
  }
  WalkProgress progress;
  other.link(tree.path(), "root");
  const FolderSizeResult result = sizeFolder(other.url("root"), {{}, &progress});
  EXPECT_EQ(kFiles + 2, result.entries);
  EXPECT_EQ(kFiles + 2, progress.entries());
  EXPECT_EQ(102'400, result.bytes);
  EXPECT_EQ(result.bytes, progress.bytes());
  EXPECT_EQ(0, result.status + result.unreadable + result.vanished);
  EXPECT_EQ(ENOENT, sizeFolder(tree.url("missing")).status);
  EXPECT_EQ(ENOTDIR, sizeFolder(tree.url("linked")).status);
  EXPECT_EQ(EINVAL, sizeFolder(*URL::parse("https://host/tmp")).status);
}

TEST(FolderSize, LeavesOutExcludedChildrenBySpelling) {
  TestTree tree;
  for (const char* name : {"in", "in/deep", "in/deep/er", "other"}) tree.folder(name);
  for (const char* name : {"in/deep/er/f", "in/deep/g", "other/h", "sp\xff ace"}) tree.file(name, "content");
  const int64_t all = sizeFolder(tree.url()).bytes;
  const auto sizeWithout = [&](std::vector<URL> urls) { return sizeFolder(tree.url(), {urls, {}}).bytes; };
  const auto block = [&](const std::string& name) { return all - sizeWithout({tree.url(name)}); };
  int64_t within = 0;
  for (const char* name : {"in", "in/deep", "in/deep/er", "in/deep/er/f", "in/deep/g"})
    within += tree.allocated(name);
  EXPECT_EQ(within, block("in"));
  EXPECT_EQ(tree.allocated("sp\xff ace"), block("sp\xff ace"));
  EXPECT_EQ(all - block("in"), sizeWithout({tree.url("in/deep/er/f"), tree.url("in")}));
  const std::string text(tree.url("in").absoluteString());
  for (const std::string& miss : {text + "/", text + "x", "file://localhost" + tree.path() + "/in",
                                  text + "/../other", tree.url().description() + "/%69n", text + "?q"}) {
    EXPECT_EQ(all, sizeWithout({*URL::parse(miss)})) << miss;
  }
  EXPECT_EQ(all - within, LKSSizeDirectoryWithExcludedChildURLs(tree.url(), {{tree.url("in")}}));
  const tests::CapturedLog log;
  EXPECT_EQ(0, LKSSizeDirectoryWithExcludedChildURLs(tree.url("missing")));
  EXPECT_TRUE(log.lines().empty());
}

TEST(FolderSize, CountsWhatItCannotReadAndWhatVanishes) {
  TestTree tree;
  tree.folder("open");
  std::jthread changer([&](const std::stop_token& end) {
    for (int i = 0; !end.stop_requested(); i = (i + 1) % 40) {
      const std::string name = tree / std::to_string(i);
      if (::mkdir(name.c_str(), 0755) != 0) ::rmdir(name.c_str());
    }
  });
  int64_t vanished = 0;
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (int i = 0; i < 200 || (vanished == 0 && std::chrono::steady_clock::now() < patience); ++i) {
    const FolderSizeResult result = sizeFolder(tree.url());
    ASSERT_EQ(0, result.status + result.unreadable);
    vanished += result.vanished;
  }
  changer.request_stop();
  changer.join();
  EXPECT_GT(vanished, 0);

  ASSERT_EQ(0, ::chmod(tree.path().c_str(), 0755));
  ASSERT_EQ(0, ::chmod((tree / "open").c_str(), 0));
  const bool isRoot = ::geteuid() == 0 && ::seteuid(65534) == 0;
  const FolderSizeResult result = sizeFolder(tree.url());
  ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
  EXPECT_EQ(0, result.status);
  ASSERT_EQ(1, result.unreadable);
  EXPECT_EQ(tree / "open", result.firstUnreadable.at(0).path);
  EXPECT_EQ(EACCES, result.firstUnreadable[0].error);
}

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

TEST_P(DeepDelete, RemovesItemsOfAnyKindWithAllBeneathThemAndRefusesWhatMustStay) {
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
      remove({*URL::parse("file:///"), *URL::parse("file:////"), tree.url("kept/."), tree.url("kept/.."),
              tree.url("kept/../"), *URL::parse("https://host" + tree.path()), *URL::parse("file:"),
              tree.url("missing"), tree.url("missing/x"), tree.url("a"), tree.url("plain"),
              URL::file(tree / "link", true), tree.url("odd")},
             &progress);
  EXPECT_EQ(7 + 1 + 1 + 255, result.removed);
  EXPECT_EQ(result.removed, progress.entries());
  EXPECT_EQ(9, result.failed);
  ASSERT_TRUE(result.error);
  EXPECT_EQ(EINVAL, causeOf(result));
  EXPECT_EQ("264 entries were removed, 9 could not be: /: Invalid argument",
            result.error->localizedDescription());
  EXPECT_EQ("./kept ./kept/f ", tree.list());
  tree.link("kept", "link");
  EXPECT_EQ(ENOTDIR, causeOf(emptyFolder(tree.url("link"), {}, {nullptr, GetParam()})));
  EXPECT_EQ(EINVAL, causeOf(emptyFolder(URL::file("/"), {}, {nullptr, GetParam()})));
  EXPECT_TRUE(tree.has("kept/f"));
}

TEST_P(DeepDelete, NeverCrossesAMountAsSizingDoesNot) {
  TestTree tree;
  for (const char* name : {"a", "z"}) tree.folder(name);
  if (!tree.mountVolume()) GTEST_SKIP() << "no privilege to mount";
  for (const char* name : {"a/f", "bound", "z/f"}) tree.file(name);
  ASSERT_EQ(0, ::mount((tree / "a").c_str(), (tree / "z").c_str(), nullptr, MS_BIND, nullptr));
  EXPECT_EQ(3, sizeFolder(tree.url()).entries);
  EXPECT_GE(sizeFolder(tree.url("mount")).bytes, 100'000) << "a root on another mount is followed";
  EXPECT_EQ(EBUSY, causeOf(remove({tree.url("mount")})));
  EXPECT_EQ(EBUSY, causeOf(emptyFolder(tree.url("mount"), {}, {nullptr, GetParam()})));
  EXPECT_EQ(EBUSY, causeOf(remove({tree.url("z")}))) << "the same volume bound again";
  EXPECT_EQ(3, remove({tree.url()}).removed);
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

TEST_P(DeepDelete, RemovesWhatItsThreadsShareAndKeepsOnlyWhatCannotGo) {
  TestTree tree(TestTree::kInMemory);
  for (int chain = 0; chain < 12; ++chain) {
    std::string path = std::to_string(chain);
    for (int level = 0; level < 20; ++level, path += "/d") {
      for (const std::string& folder : {path, path + "/side"}) {
        tree.folder(folder);
        for (int i = 0; i < 15; ++i) tree.file(folder + "/" + std::to_string(i), "");
      }
    }
  }
  tree.folder("flat");
  for (int i = 0; i < 5'000; ++i) tree.file("flat/" + std::to_string(i), "");
  tree.folder("0/side/deep");
  const std::string kept = tree / "0/side/deep";
  if (::mount(kept.c_str(), kept.c_str(), nullptr, MS_BIND, nullptr)) GTEST_SKIP() << "no privilege to mount";
  WalkProgress progress;
  const DeepDeleteResult result = remove({tree.url()}, &progress);
  ::umount(kept.c_str());
  EXPECT_EQ(12 * 20 * 32 + 4'999, result.removed);
  EXPECT_EQ(result.removed, progress.entries());
  EXPECT_EQ(1, result.failed);
  EXPECT_EQ(EBUSY, causeOf(result));
  EXPECT_EQ("./0 ./0/side ./0/side/deep ", tree.list());
}

TEST_P(DeepDelete, NeverLeavesATreeWhoseFoldersAreSwappedForLinks) {
  constexpr int kRounds = 20, kFolders = 400;
  TestTree outside(TestTree::kInMemory), tree(TestTree::kInMemory);
  outside.chain(2);
  const std::string before = outside.list();
  const auto victim = [&](int round, int i) { return std::to_string(round) + "/v/" + std::to_string(i); };
  const auto link = [&](int round, int i) { return std::to_string(round) + "/" + std::to_string(i); };
  const int at = ::open(tree.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  std::atomic<int> wanted = -1, begun = -1;  // Rounds.
  std::atomic<int64_t> swaps = 0;
  int64_t removed = 0;
  std::vector<std::jthread> attackers(3);
  for (std::jthread& attacker : attackers) {
    attacker = std::jthread([&](const std::stop_token& end) {
      for (int i = 0; !end.stop_requested(); i = (i + 1) % kFolders) {
        const int round = wanted;
        const std::string folder = victim(round, i), other = link(round, i);
        for (int swap = 0; swap < 6; ++swap)
          swaps += ::renameat2(at, folder.c_str(), at, other.c_str(), RENAME_EXCHANGE) == 0;
        begun = round;
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    for (const char* name : {"", "/v"}) tree.folder(std::to_string(round) + name);
    for (int i = 0; i < kFolders; ++i) {
      tree.folder(victim(round, i));
      tree.file(victim(round, i) + "/f", "");
      tree.link(outside.path(), link(round, i));
    }
    wanted = round;
    while (begun != round) std::this_thread::yield();
    removed += remove({tree.url(std::to_string(round) + "/v")}).removed;
  }
  attackers.clear();
  ::close(at);
  EXPECT_GT(removed, kRounds * kFolders);
  EXPECT_GT(swaps, kRounds * kFolders);
  EXPECT_EQ(before, outside.list());
}

TEST_P(DeepDelete, StopsWhenCancelledAsSizingDoes) {
  TestTree tree(TestTree::kInMemory);
  DeepDeleteResult deleted;
  FolderSizeResult sized;
  // Whoever cancels may come too late on a busy machine.
  for (int attempt = 0; attempt < 50 && !(deleted.error && sized.status); ++attempt) {
    tree.folder("a");
    for (int i = 0; i < 20'000; ++i) tree.file("a/" + std::to_string(i), "");
    for (const bool deletes : {false, true}) {
      WalkProgress progress;
      std::jthread canceller([&progress](const std::stop_token& end) {
        while (progress.entries() < 5 && !end.stop_requested()) std::this_thread::yield();
        progress.cancel();
      });
      deletes ? void(deleted = remove({tree.url("a")}, &progress))
              : void(sized = sizeFolder(tree.url("a"), {{}, &progress}));
      EXPECT_EQ(tree / "a", progress.currentFolder());
      EXPECT_EQ(deletes ? deleted.removed : sized.entries, progress.entries());
    }
    EXPECT_EQ(!deleted.error, !tree.has("a")) << "with nothing left it was not cancelled";
    EXPECT_EQ(!sized.status, sized.entries == 20'000) << "likewise";
    if (!deleted.error || !sized.status) remove({tree.url("a")});
  }
  EXPECT_EQ(ECANCELED, sized.status);
  EXPECT_TRUE(sized.entries >= 5 && sized.entries < 20'000) << sized.entries;
  ASSERT_TRUE(deleted.error);
  EXPECT_EQ(-128, deleted.error->code());
  EXPECT_EQ(deleted.removed, deleted.error->userInfo().get(kRemovedCountKey).integerValue());
  EXPECT_TRUE(deleted.removed >= 5 && deleted.removed <= 20'000) << deleted.removed;
}

}  // namespace
}  // namespace larkspan::platform
