#include "larkspan/fs/DirectorySize.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using platform::URL;

TEST(DirectorySize, LeavesOutChildrenAndSaysNothingOfFailures) {
  ManifestTree tree;
  tree.write("in/f", std::string(10'000, 'x'));
  tree.write("out/f", std::string(20'000, 'x'));
  const URL folder = URL::file(tree.root, true), child = URL::file(tree.path("out"));
  const int64_t all = LKSSizeDirectoryWithExcludedChildURLs(folder);
  EXPECT_GE(all, 30'000);
  const std::vector<URL> excluded{child, URL::file("/elsewhere")}, other{URL::file(tree.path("out"), true)};
  EXPECT_EQ(LKSSizeDirectoryWithExcludedChildURLs(folder, excluded),
            all - LKSSizeDirectoryWithExcludedChildURLs(child) - 4096)
      << "the child's own entry, too";
  EXPECT_EQ(LKSSizeDirectoryWithExcludedChildURLs(folder, other), all);
  CapturedLog log;
  EXPECT_EQ(LKSSizeDirectoryWithExcludedChildURLs(URL::file("/nowhere")), 0);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace larkspan::tests
