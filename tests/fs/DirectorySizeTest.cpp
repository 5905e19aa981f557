#include "larkspan/fs/DirectorySize.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using platform::URL;

TEST(DirectorySize, LeavesOutChildrenAndSaysNothingOfFailures) {
  ManifestTree tree;
  tree.write("out/f", std::string(20'000, 'x'));
  const URL folder = URL::file(tree.root, true), child = URL::file(tree.path("out"));
  EXPECT_GE(LKSSizeDirectoryWithExcludedChildURLs(folder), 20'000);
  EXPECT_EQ(LKSSizeDirectoryWithExcludedChildURLs(folder, {{child}}), 0);
  CapturedLog log;
  EXPECT_EQ(LKSSizeDirectoryWithExcludedChildURLs(URL::file("/nowhere")), 0);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace larkspan::tests
