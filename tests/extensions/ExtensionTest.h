#pragma once

#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/runtime/LKSOperationQueue.h"
#include "tests/platform/files/TestTree.h"
#include "tests/support/Collector.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace larkspan::tests {

/// One of the bundled extensions in its own process, as a host meets it, and a temporary folder for what it manages. The
/// process starts with the first question, in the environment of then.
class ExtensionTest : public testing::Test {
 protected:
  explicit ExtensionTest(const std::string& name)
      : handle(LKSOpaqueExtension::initWithExtension(
            std::make_shared<platform::Extension>(std::get<platform::Manifest>(
                platform::readManifest(LARKSPAN_TEST_BIN "/../share/larkspan/extensions/corvane.larkspan." +
                                       name + ".extension"))))),
        observer(platform::NotificationCenter::defaultCenter().addObserver(
            std::nullopt, handle.get(),
            [this](const platform::Notification& notification) { heard.push(notification.name); })) {}
  ~ExtensionTest() override { handle->abandon(); }

  /// The answer; why there is none is then in `error`.
  template <typename Operation>
  Items ask(Items input = {}) {
    const auto operation = LKSOperation::makeOperation<Operation>();
    operation->setExtension(handle);
    operation->setInputItems(std::move(input));
    LKSOperationQueue::concurrentBackgroundQueue()->addOperation(operation);
    operation->waitUntilFinished();
    error = operation->error() ? operation->error()->localizedDescription() : "";
    return operation->returnedItems().value_or(Items());
  }
  void expectNotice(std::string_view name) {
    const auto has = [name](const auto& names) { return std::count(names.begin(), names.end(), name) > 0; };
    EXPECT_TRUE(has(heard.waitUntil(has))) << name;
  }
  /// By the paths where they lie below the tree; what has none by "".
  std::map<std::string, LKSResource> resources() {
    std::map<std::string, LKSResource> result;
    for (const LKSResource item : ask<LKSFetchResourcesOperation>()) {
      const auto url = item.lks_URL();
      result.emplace(url ? url->path().substr(tree.path().size() + 1) : "", item);
    }
    return result;
  }

  platform::TestTree tree;
  std::string error;
  Collector<std::string> heard;
  const std::shared_ptr<LKSOpaqueExtension> handle;
  const platform::NotificationCenter::Token observer;
};

}  // namespace larkspan::tests
