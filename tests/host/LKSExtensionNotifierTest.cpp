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
    sets.push(names);
  }
  Collector<std::string> sets;
};

struct ErrorDelegate : Delegate {
  void extensionNotifierDidError(LKSExtensionNotifier&, const platform::Error& error) override {
    errors.push(error.code());
  }
  Collector<int64_t> errors;
};

TEST(LKSExtensionNotifier, HandsOverTheWholeSetOnEachChangeWhileItIsStarted) {
  const ManifestTree tree;
  const ScopedVariable path("LARKSPAN_EXTENSION_PATH", tree.root.c_str());
  const ScopedVariable data("XDG_DATA_DIRS", "/nowhere"), home("XDG_DATA_HOME", "/nowhere");
  const auto add = [&](const std::string& id) {
    tree.write(id + ".extension",
               "[Extension]\nExtensionPoint=corvane.larkspan\nExec=x\nName=N\nIdentifier=" + id + "\n");
  };
  const auto delegate = std::make_shared<ErrorDelegate>();
  auto notifier = LKSExtensionNotifier::init();
  notifier->setDelegate(delegate);
  notifier->stop();
  notifier->start();
  notifier->start();
  EXPECT_EQ(delegate->sets.waitFor(1), std::vector<std::string>{""}) << "the empty set is no error";
  notifier->serialAccessQueue()->sync([] {});
  const auto matching = notifier->matchingContext();
  add("b");
  EXPECT_EQ(delegate->sets.waitFor(2), (std::vector<std::string>{"", "b "}));
  EXPECT_EQ(notifier->matchingContext(), matching) << "started once";
  notifier->stop();
  notifier->serialAccessQueue()->sync([] {});
  EXPECT_EQ(notifier->matchingContext(), nullptr);
  add("a");
  notifier->start();
  EXPECT_EQ(delegate->sets.waitFor(3), (std::vector<std::string>{"", "b ", "a b "}));

  notifier->handleMatchingResponse(std::nullopt, platform::Error("test", 4));
  EXPECT_EQ(delegate->errors.now(), std::vector<int64_t>{4});
  const auto silent = std::make_shared<Delegate>();
  notifier->setDelegate(silent);
  notifier->handleMatchingResponse(std::nullopt, platform::Error("test", 4));
  notifier->setDelegate(nullptr);
  notifier->handleMatchingResponse(std::vector<platform::Manifest>{}, std::nullopt);
  EXPECT_TRUE(silent->sets.now().empty());
  EXPECT_EQ(delegate->sets.now().size(), 3u);
}

}  // namespace
}  // namespace larkspan::tests
