#include "larkspan/platform/files/DirectoryStack.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

namespace larkspan::platform {
namespace {

class DirectoryStackTest : public testing::TestWithParam<FolderOpening> {
 protected:
  DirectoryStack at(const std::string& path) const {
    struct statx facts;
    Descriptor root(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(0, factsAt(root.get(), "", facts));
    return DirectoryStack(std::move(root), path, facts, GetParam());
  }
};

INSTANTIATE_TEST_SUITE_P(Openings, DirectoryStackTest,
                         testing::Values(FolderOpening::automatic, FolderOpening::components));

TEST_P(DirectoryStackTest, OpensOnlyFoldersOnTheMount) {
  TestTree tree;
  tree.folder("d");
  tree.file("f");
  ASSERT_EQ(0, ::symlink("d", (tree / "l").c_str()));
  const int root = ::open(tree.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  struct statx facts;
  ASSERT_EQ(0, factsAt(root, "", facts));
  const auto errorOf = [&](const char* name) {
    Descriptor folder;
    const int error = openFolderAt(root, name, mountOf(facts), GetParam(), folder);
    EXPECT_EQ(error == 0, static_cast<bool>(folder)) << name;
    return error;
  };
  EXPECT_EQ(0, errorOf("d"));
  EXPECT_EQ(ENOTDIR, errorOf("f"));
  EXPECT_TRUE(errorOf("l") == ENOTDIR || errorOf("l") == ELOOP);
  EXPECT_EQ(ENOENT, errorOf("missing"));
  const bool isMounted = tree.mountVolume();
  EXPECT_EQ(isMounted ? EXDEV : 0, errorOf("mount"));
  ::close(root);
}

TEST_P(DirectoryStackTest, FindsClosedLevelsAgainOnlyWhereTheyAreTheSame) {
  TestTree tree;
  tree.chain("d", 60);
  tree.folder("elsewhere");
  std::string middle = tree / "d";  // Level 30: long closed when the walk is at level 60.
  for (int level = 1; level < 30; ++level) middle += "/d";
  DirectoryStack stack = at(tree.path());
  struct statx facts;
  while (stack.depth() < 61) ASSERT_EQ(0, stack.enter("d", facts));
  ASSERT_EQ(0, ::rename((middle + "/d").c_str(), (tree / "elsewhere/d").c_str()));
  while (stack.depth() > 31) stack.leave();
  ASSERT_GE(stack.top(), 0) << "what was left is elsewhere, but the names still lead to level 30";
  ASSERT_EQ(0, factsAt(stack.top(), "", facts));
  struct stat expected;
  ASSERT_EQ(0, ::stat(middle.c_str(), &expected));
  EXPECT_EQ(expected.st_ino, facts.stx_ino);
}

TEST_P(DirectoryStackTest, GivesUpALevelThatAnotherFolderReplaced) {
  TestTree tree;
  tree.chain("d", 40);
  tree.folder("elsewhere");
  DirectoryStack stack = at(tree.path());
  struct statx facts;
  while (stack.depth() < 41) ASSERT_EQ(0, stack.enter("d", facts));
  // The walk's way up leads elsewhere, and its way down by names into a new chain.
  ASSERT_EQ(0, ::rename((tree / "d/d/d").c_str(), (tree / "elsewhere/d").c_str()));
  ASSERT_EQ(0, ::rename((tree / "d").c_str(), (tree / "moved").c_str()));
  tree.chain("d", 40);
  while (stack.depth() > 3) stack.leave();
  EXPECT_EQ(-1, stack.top());
  EXPECT_EQ(ESTALE, stack.enter("d", facts));
  while (stack.depth() > 1) stack.leave();
  EXPECT_GE(stack.top(), 0) << "the start stays open";
}

}  // namespace
}  // namespace larkspan::platform
