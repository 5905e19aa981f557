#include "larkspan/platform/files/DirectoryStack.h"

#include <gtest/gtest.h>

#include "tests/platform/files/TestTree.h"

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
    DirectoryStack stack(std::move(root), tree.path(), facts, opening);
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

}  // namespace
}  // namespace larkspan::platform
