#include "larkspan/platform/appext/ExtensionMatcher.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include <sys/stat.h>

namespace larkspan::platform {
namespace {

using std::filesystem::rename;
using tests::ManifestTree;
using tests::ScopedVariable;
using Texts = std::vector<std::string>;

const std::string kPoint = "corvane.larkspan";
const std::string kHome = "home/larkspan/extensions/", kSystem = "system/larkspan/extensions/";

/// A matcher over one tree: own/ comes first, then home/ and system/ as data folders.
/// What it delivers is written as "IDENTIFIER=NAME " each.
class Matched {
 public:
  explicit Matched(const ManifestTree& tree) {
    const ScopedVariable own("LARKSPAN_EXTENSION_PATH", tree.path("own").c_str());
    const ScopedVariable home("XDG_DATA_HOME", tree.path("home").c_str());
    const ScopedVariable system("XDG_DATA_DIRS", tree.path("system").c_str());
    matcher_.emplace(kPoint, [this](const auto& extensions, const auto&) {
      std::string text;
      for (const auto& m : extensions.value()) text += m.identifier + "=" + m.name + " ";
      all_.push(text);
    });
  }
  /// Whether the newest delivery is, or becomes, `expected`.
  testing::AssertionResult delivers(const std::string& expected) {
    const auto all =
        all_.waitUntil([&](const auto& texts) { return !texts.empty() && texts.back() == expected; });
    return testing::AssertionResult(!all.empty() && all.back() == expected)
           << (all.empty() ? "nothing" : all.back());
  }

 private:
  tests::Collector<std::string> all_;
  std::optional<ExtensionMatcher> matcher_;  // Ends first.
};

TEST(ExtensionMatcher, DeliversTheWholeSetAndEachChangeOfFilesInIt) {
  const ManifestTree tree;
  tree.add(kSystem + "b.extension", "system");
  tree.add(kSystem + "a.extension", "first");
  Matched m(tree);
  EXPECT_TRUE(m.delivers("a=first b=system "));
  tree.add("own/b.extension", "own");  // own/ comes into being with it.
  EXPECT_TRUE(m.delivers("a=first b=own "));
  tree.add(kHome + "b.extension", "home");
  tree.add("own/b.extension", "own", "x", "Hidden=true\n");
  EXPECT_TRUE(m.delivers("a=first ")) << "hides those after it";
  tree.write("own/b.extension", "[Extension]\nIdentifier=b\nExtensionPoint=q\nName=N\nExec=x\n");
  tree.add(kSystem + "a.extension", "newer");  // Of the same size.
  EXPECT_TRUE(m.delivers("a=newer ")) << "of another point, b wins all the same";
  unlink(tree.path("own/b.extension").c_str());
  rename(tree.path(kSystem + "a.extension"), tree.path("gone"));
  EXPECT_TRUE(m.delivers("b=home "));
  chmod(tree.path(kHome + "b.extension").c_str(), 0646);
  EXPECT_TRUE(m.delivers("b=system ")) << "refused, it hides nothing";
}

TEST(ExtensionMatcher, FollowsFoldersAndLinksThatComeGoAndAreReplaced) {
  const ManifestTree tree;
  Matched m(tree);
  EXPECT_TRUE(m.delivers(""));
  tree.add(kHome + "a.extension");
  EXPECT_TRUE(m.delivers("a=N "));
  rename(tree.path("home"), tree.path("elsewhere"));
  EXPECT_TRUE(m.delivers(""));
  rename(tree.path("elsewhere"), tree.path("home"));
  EXPECT_TRUE(m.delivers("a=N "));
  std::filesystem::remove_all(tree.path("home/larkspan"));
  // A data folder behind two links, one of which is switched over as profiles are.
  tree.add("1/larkspan/extensions/b.extension", "one");
  tree.add("2/larkspan/extensions/b.extension", "two");
  tree.link("1", "profile");
  tree.link(tree.path("own/../profile/."), "system");
  tree.folder("own");  // Only now the link leads anywhere.
  EXPECT_TRUE(m.delivers("b=one "));
  tree.link("2", "next");
  rename(tree.path("next"), tree.path("profile"));
  EXPECT_TRUE(m.delivers("b=two "));
  // A manifest that is a link.
  tree.add("package/c.extension", "linked");
  tree.link("../package/c.extension", "own/c.extension");
  EXPECT_TRUE(m.delivers("b=two c=linked "));
  tree.add("package/c.extension", "again");
  EXPECT_TRUE(m.delivers("b=two c=again "));
  rename(tree.path("package"), tree.path("unpacked"));
  EXPECT_TRUE(m.delivers("b=two "));
}

TEST(ExtensionMatcher, LogsWhatItSkipsOnceForEachStateOfIt) {
  const tests::CapturedLog log;
  const ManifestTree tree;
  const std::string bad = tree.write("own/bad.extension", "[Extension]\n");
  std::filesystem::create_directories(tree.path(kSystem));
  chmod(tree.path(kSystem).c_str(), 0777);
  Matched m(tree);
  for (const std::string name : {"one", "two", "three"}) {  // A look each.
    if (name == "three") rename(tree.write("own/new", "[Extension]\nIdentifier=bad\n"), bad);
    tree.add("own/a.extension", name);
    EXPECT_TRUE(m.delivers("a=" + name + " "));
  }
  Texts lines = log.system();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (Texts{"Skipped extension folder " + tree.path("system/larkspan/extensions") +
                              ": writable by everybody",
                          "Skipped extension manifest " + bad + ": no Exec",
                          "Skipped extension manifest " + bad + ": no Identifier"}));
}

TEST(ExtensionMatcher, DeliversNothingAfterItsEnd) {
  const ManifestTree tree;
  const ScopedVariable own("LARKSPAN_EXTENSION_PATH", tree.path("own").c_str());
  for (int i = 0; i < 100; ++i) {  // From outside, before, during or after the first delivery.
    std::promise<void> started;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    ExtensionMatcher matcher(kPoint, [&started, held = std::move(held)](const auto&, const auto&) {
      started.set_value();
      std::this_thread::yield();
    });
    if (i % 2) started.get_future().wait();
    matcher.end();
    EXPECT_TRUE(watched.expired()) << "not under way and never again";
  }
  std::promise<void> begun, ended;  // From the delivery itself, which also drops the matcher.
  std::unique_ptr<ExtensionMatcher> matcher;
  const auto drop = [&, held = std::string("kept")](const auto&, const auto&) {
    begun.get_future().wait();
    matcher = nullptr;
    EXPECT_EQ(held, "kept");
    ended.set_value();
  };
  matcher = std::make_unique<ExtensionMatcher>(kPoint, drop);
  begun.set_value();
  ended.get_future().wait();
}

}  // namespace
}  // namespace larkspan::platform
