#include "larkspan/host/LKSExtensionNotifier.h"
#include "tests/support/Collector.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

struct Delegate : LKSExtensionNotifierDelegate {
  void extensionNotifierDidGetExtensions(
      LKSExtensionNotifier&, const std::vector<std::shared_ptr<LKSOpaqueExtension>>& extensions) override {
    std::string names;
    for (const auto& handle : extensions) names += handle->identifier() + " ";
    heard.push(names);
  }
  void extensionNotifierDidError(LKSExtensionNotifier&, const platform::Error& error) override {
    heard.push(error.domain());
  }
  Collector<std::string> heard;
};

TEST(LKSExtensionNotifier, HandsOverTheWholeSetOnEachChangeWhileItIsStarted) {
  const ManifestTree tree;
  const ScopedVariable path("LARKSPAN_EXTENSION_PATH", tree.root.c_str());
  const ScopedVariable data("XDG_DATA_DIRS", "/nowhere"), home("XDG_DATA_HOME", "/nowhere");
  const auto add = [&](const std::string& id) {
    tree.write(id + ".extension",
               "[Extension]\nExtensionPoint=corvane.larkspan\nExec=x\nName=N\nIdentifier=" + id + "\n");
  };
  using Heard = std::vector<std::string>;
  const auto delegate = std::make_shared<Delegate>();
  auto notifier = LKSExtensionNotifier::init();
  notifier->setDelegate(delegate);
  for (int i = 0; i < 2; ++i) notifier->start();
  EXPECT_EQ(delegate->heard.waitFor(1), Heard{""}) << "the empty set is no error, and it starts once";
  add("b");
  EXPECT_EQ(delegate->heard.waitFor(2), (Heard{"", "b "}));
  for (int i = 0; i < 2; ++i) notifier->stop();
  notifier->serialAccessQueue()->sync([] {});
  EXPECT_EQ(notifier->matchingContext(), nullptr);
  add("a");
  notifier->start();
  EXPECT_EQ(delegate->heard.waitFor(3), (Heard{"", "b ", "a b "}));

  notifier->handleMatchingResponse(std::nullopt, platform::Error("test", 4));
  notifier->setDelegate(nullptr);
  notifier->handleMatchingResponse(std::vector<platform::Manifest>{}, std::nullopt);
  EXPECT_EQ(delegate->heard.now(), (Heard{"", "b ", "a b ", "test"}));
}

}  // namespace
}  // namespace larkspan::tests
