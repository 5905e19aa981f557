#pragma once

#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "tests/platform/files/TestTree.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>

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
            std::nullopt, handle.get(), [this](const platform::Notification& notification) {
              const std::lock_guard lock(mutex);
              heard.push_back(notification.name);
              changed.notify_all();
            })) {}
  ~ExtensionTest() override { handle->abandon(); }

  /// The answer; why there is none is then in `error`.
  template <typename Operation>
  Items ask(Items input = {}) {
    const auto operation = LKSOperation::makeOperation<Operation>();
    operation->setExtension(handle);
    operation->setInputItems(std::move(input));
    operation->start();
    operation->waitUntilFinished();
    error = operation->error() ? operation->error()->localizedDescription() : "";
    return operation->returnedItems().value_or(Items());
  }
  long count(std::string_view name) { return std::count(heard.begin(), heard.end(), name); }
  void expectNotice(std::string_view name) {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return count(name) > 0; })) << name;
  }
  /// In the folder of the test.
  std::string shell(const std::string& command) {
    return platform::shell("cd " + tree.path() + " && set -e && " + command);
  }
  void forgetNotices() {
    const std::lock_guard lock(mutex);
    heard.clear();
  }

  platform::TestTree tree;
  std::string error;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> heard;
  const std::shared_ptr<LKSOpaqueExtension> handle;
  const platform::NotificationCenter::Token observer;
};

}  // namespace larkspan::tests
