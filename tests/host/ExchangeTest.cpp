#include "larkspan/host/LKSCallbackManager.h"
#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/host/LKSRemoteExtensionContext.h"
#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/platform/ipc/Serving.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/process/Launcher.h"
#include "larkspan/provider/LKSExtension.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>

namespace larkspan::tests {
namespace {

using namespace platform;

/// "Starts" an extension within this process, at the other end of a real socket: everything is encoded,
/// checked and decoded as between two processes.
class InProcessExtension : public Launcher {
 public:
  explicit InProcessExtension(std::shared_ptr<LKSExtension> provider) : provider_(std::move(provider)) {}

  std::atomic<int> launches{0};

  std::variant<std::shared_ptr<LaunchedProcess>, Error> launch(const ChildOptions& options,
                                                               Child::ExitHandler) override {
    ++launches;
    const auto process = std::make_shared<Process>();
    process->socket.reset(fcntl(options.descriptors.at(0).source, F_DUPFD_CLOEXEC, 0));
    const auto accept = [provider = provider_](const auto& connection) {
      const auto context = LKSRemoteExtensionContext::make(UUID::random(), connection);
      provider->beginRequestWithExtensionContext(context);
      return context;
    };
    const auto end = [process] {
      const std::lock_guard lock(process->mutex);
      process->socket.reset();
    };
    serve(Descriptor(fcntl(process->socket.get(), F_DUPFD_CLOEXEC, 0)), "host", accept, end);
    const std::lock_guard lock(mutex_);
    return process_ = process;
  }

  /// What a crash looks like to the host.
  void crash() {
    const std::lock_guard lock(mutex_);
    if (process_) process_->kill();
  }

 private:
  struct Process : LaunchedProcess {
    void kill() override {
      const std::lock_guard lock(mutex);
      if (socket) shutdown(socket.get(), SHUT_RDWR);
    }
    std::mutex mutex;
    Descriptor socket;
  };

  const std::shared_ptr<LKSExtension> provider_;
  std::mutex mutex_;
  std::shared_ptr<Process> process_;
};

/// A handle on an extension whose manifest is only made up; each path is another extension.
std::shared_ptr<LKSOpaqueExtension> handleFor(const std::string& path) {
  Manifest manifest;
  manifest.path = path;
  manifest.identifier = "test.extension";
  manifest.exec = {"/nonexistent"};
  return LKSOpaqueExtension::initWithExtension(std::make_shared<Extension>(manifest));
}

class Provider : public LKSExtension {
 public:
  std::vector<LKSResource> resourceItems() override {
    std::unique_lock lock(mutex_);
    const auto before = before_;
    lock.unlock();
    if (before) before();
    return {};
  }
  std::vector<LKSTipMessage> tipItems() override { return {*LKSTipMessage::initLKSTipWithTitle("Tip")}; }
  std::optional<Error> deleteResourceItems(const std::vector<LKSResource>&) override { return std::nullopt; }

  /// Runs on the extension's queue before it answers; it may still do so when it has been replaced.
  void setBeforeResources(std::function<void()> before) {
    const std::lock_guard lock(mutex_);
    before_.swap(before);
  }

 private:
  std::mutex mutex_;
  std::function<void()> before_;
};

struct Exchange : testing::Test {
  std::shared_ptr<Provider> provider = std::make_shared<Provider>();
  std::shared_ptr<InProcessExtension> launcher = std::make_shared<InProcessExtension>(provider);
  ScopedLauncher installed{launcher};
  std::shared_ptr<LKSOpaqueExtension> handle =
      handleFor(testing::UnitTest::GetInstance()->current_test_info()->name());
  struct Outcome {
    std::optional<Items> items;
    std::optional<Error> error;
  };
  Collector<Outcome> outcomes;
  /// What is posted about handles.
  Collector<Notification> heard;
  const NotificationCenter::Token token = NotificationCenter::defaultCenter().addObserver(
      std::nullopt, nullptr, [this](const Notification& notification) {
        if (notification.name.starts_with("LKSOpaqueExtension")) heard.push(notification);
      });

  ~Exchange() override { LKSCallbackManager::sharedInstance().setContext(nullptr); }

  void send(std::string_view command, const std::shared_ptr<LKSOpaqueExtension>& to) {
    to->processInputItems({*LKSCommand::initLKSCommandItem(command)},
                          [this](const auto& items, const auto& error) {
                            outcomes.push({items, error});
                          });
  }
  /// Asks for resources and returns while the extension is at it, where it stays until `released` is set.
  void sendAndStopInside(std::promise<void>& released, std::function<void()> then = nullptr) {
    const auto reached = std::make_shared<std::promise<void>>();
    provider->setBeforeResources([reached, then, gate = released.get_future().share()] {
      reached->set_value();
      gate.wait();
      if (then) then();
    });
    send(kCmdResources, handle);
    EXPECT_EQ(reached->get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
};

TEST(ExtensionOperation, TakesTheHeaderForTheOutcomeAndRunsOnlyWithACommandAndAnExtension) {
  const auto operation = LKSOperation::makeOperation<LKSFetchResourcesOperation>();
  const MessageItem a = LKSResource::initLKSResourceItemWithName("A");
  LKSCommand header(operation->commandInputItem());
  operation->finishWithItems({header, a});
  EXPECT_EQ(operation->returnedItems(), Items{a});
  EXPECT_FALSE(operation->error());
  header.setLks_error(Error("test", 3));
  operation->finishWithItems({header, header});
  EXPECT_EQ(operation->error(), Error("test", 3));
  EXPECT_EQ(operation->returnedItems(), Items{a}) << "an error leaves earlier items alone";
  EXPECT_THROW(operation->finishWithItems({}), std::out_of_range);

  EXPECT_THROW(LKSExtensionOperation().commandInputItem(), std::invalid_argument);
  const auto incomplete = LKSOperation::makeOperation<LKSFetchResourcesOperation>();
  incomplete->start();
  EXPECT_EQ(incomplete->error().value().domain(), "LKSExtensionOperationErrorDomain");
}

TEST_F(Exchange, OneRequestServesUntilItIsInvalidatedAndInterruptionKeepsIt) {
  CapturedLog log;
  send(kCmdTips, handle);
  ASSERT_EQ(outcomes.waitFor(1).at(0).items->size(), 2u);
  const auto first = handle->context();
  send(kCmdTips, handle);
  outcomes.waitFor(2);
  EXPECT_TRUE(first && handle->context() == first);
  EXPECT_EQ(launcher->launches, 1);

  // A crash in the middle of an exchange fails that one, once; the next starts the extension again.
  std::promise<void> released;
  sendAndStopInside(released);
  launcher->crash();
  const Outcome failed = outcomes.waitFor(3).at(2);
  EXPECT_FALSE(failed.items);
  EXPECT_EQ(failed.error->code(), static_cast<int64_t>(TransportErrorCode::interrupted));
  released.set_value();
  provider->setBeforeResources(nullptr);
  send(kCmdTips, handle);
  ASSERT_TRUE(outcomes.waitFor(4).at(3).items);
  EXPECT_EQ(handle->context(), first) << "an interruption keeps the request";
  EXPECT_EQ(launcher->launches, 2);

  first->auxiliaryConnection()->invalidate();
  EXPECT_EQ(handle->context(), nullptr);
  send(kCmdTips, handle);
  ASSERT_TRUE(outcomes.waitFor(5).at(4).items);
  EXPECT_NE(handle->context(), first);
  EXPECT_EQ(outcomes.now().size(), 5u);

  std::string lines;
  for (const std::string& line : log.systemOnceItHas(" interrupted")) lines += line + '\n';
  for (const char* part :
       {"communication error with <Extension test.extension", " interrupted", "result count 2, error (null)"})
    EXPECT_NE(lines.find(part), lines.npos) << lines;
}

TEST_F(Exchange, EqualHandlesShareOneProcessUntilTheirManifestIsEdited) {
  const auto other = handleFor(handle->underlyingExtension()->extensionBundle());
  const auto stranger = handleFor("another path");
  EXPECT_TRUE(handle->isEqual(*other) && handle->hash() == other->hash());
  EXPECT_FALSE(handle->isEqual(*stranger));
  EXPECT_EQ(mergeHandles({other, stranger}, {handle}), (std::vector{handle, stranger}));
  const std::string description = handle->description();
  EXPECT_TRUE(description.starts_with("<LKSOpaqueExtension:0x")) << description;
  EXPECT_TRUE(description.ends_with(" " + handle->underlyingExtension()->description() + ">")) << description;

  for (int i = 0; i < 20; ++i) send(kCmdTips, i % 2 ? handle : other);
  for (const Outcome& outcome : outcomes.waitFor(20)) EXPECT_TRUE(outcome.items);
  EXPECT_EQ(launcher->launches, 1);

  auto manifest = handle->underlyingExtension()->manifest();
  manifest.exec = {"/another"};
  const auto edited = LKSOpaqueExtension::initWithExtension(std::make_shared<Extension>(manifest));
  EXPECT_EQ(mergeHandles({edited}, {handle}), std::vector{handle});
  EXPECT_EQ(handle->underlyingExtension(), edited->underlyingExtension());
  send(kCmdTips, handle);
  EXPECT_TRUE(outcomes.waitFor(21).at(20).items);
  EXPECT_EQ(launcher->launches, 2);
}

TEST_F(Exchange, CallbacksBecomeNotificationsAboutTheHandleInOrderAndWithCopies) {
  provider->setBeforeResources([] {
    auto& manager = LKSCallbackManager::sharedInstance();
    for (const char* name : {"1", "2", "3"}) {
      LKSResource item = LKSResource::initLKSResourceItemWithName(name);
      manager.sendPartialResourceItems({item});
      item.setLks_name("changed later");
    }
    manager.notifyResourcesDidChange(Items(5));
    manager.notifyTipsDidChange({});
    manager.notifyTotalSpaceUsedDidChange(7);
  });
  send(kCmdResources, handle);
  const auto notifications = heard.waitFor(6);
  std::string names;
  for (const Notification& notification : notifications) {
    EXPECT_EQ(notification.object, handle);
    names += notification.name.substr(18) + ' ';
    const Value added = notification.userInfo.get(LKSOpaqueExtensionAddedResourcesKey);
    if (!added.isNone()) names += *itemsFromValue(added).at(0).lks_name() + ' ';
  }
  const std::string progress = "ResourceEnumerationProgressNotification ";
  EXPECT_EQ(names, progress + "1 " + progress + "2 " + progress +
                       "3 ResourcesDidChangeNotification RecommendationsDidChangeNotification "
                       "BytesUsedDidChangeNotification ");
  outcomes.waitFor(1);
}

TEST_F(Exchange, CallbacksHaveNoObjectOnceTheHandleIsGone) {
  std::promise<void> dropped;
  sendAndStopInside(dropped, [] {
    auto& manager = LKSCallbackManager::sharedInstance();
    manager.notifyTipsDidChange({});
    // It must not come after the reply, with which the request ends.
    manager.queue()->sync([] {});
  });
  handle.reset();
  dropped.set_value();
  EXPECT_EQ(heard.waitFor(1).at(0).object, nullptr);
  EXPECT_TRUE(outcomes.waitFor(1).at(0).items) << "the outstanding reply still arrives";
}

TEST_F(Exchange, AHandleOutlivesRequestsThatEndedAndItsNoticesThoseOfOthers) {
  send(kCmdTips, handle);
  outcomes.waitFor(1);
  auto other = handleFor(handle->underlyingExtension()->extensionBundle());
  send(kCmdTips, other);
  outcomes.waitFor(2);
  const auto ended = other->context();
  ended->auxiliaryConnection()->invalidate();
  // The notice of a deletion reaches the request that is left, although another was the latest.
  send(kCmdDeleteResources, handle);
  const Notification notice = heard.waitFor(1).at(0);
  EXPECT_EQ(notice.object, handle);
  EXPECT_EQ(notice.name, std::string_view(LKSOpaqueExtensionResourcesDidChangeNotification));
  outcomes.waitFor(3);
  EXPECT_EQ(heard.now().size(), 1u) << "one notice for a deletion";

  other->setContext(ended);
  send(kCmdTips, other);
  EXPECT_TRUE(outcomes.waitFor(4).at(3).items) << "a request that ended is begun anew";
  EXPECT_NE(other->context(), ended);
  EXPECT_EQ(launcher->launches, 1);
}

TEST_F(Exchange, DroppedAndMadeAnewHandlesAlwaysGetAnAnswer) {
  const std::string path = handle->underlyingExtension()->extensionBundle();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 50; ++j) {
        Collector<bool> answered;
        handleFor(path)->processInputItems(
            {*LKSCommand::initLKSCommandItem(kCmdTips)},
            [&](const auto& items, const auto&) { answered.push(items.has_value()); });
        EXPECT_EQ(answered.waitFor(1), std::vector<bool>{true});
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(Exchange, AbandoningEndsWhatIsUnderWayAtOnceAndCountsForNothing) {
  // More often than starts may fail.
  for (std::size_t i = 1; i < 8; ++i) {
    std::promise<void> released;
    sendAndStopInside(released);
    handle->abandon();
    const auto all = outcomes.waitFor(i);
    EXPECT_NE(all.back().error.value().code(), static_cast<int64_t>(TransportErrorCode::launchDelayed));
    EXPECT_EQ(handle->context(), nullptr);
    released.set_value();
  }
  provider->setBeforeResources(nullptr);
  send(kCmdTips, handle);
  EXPECT_TRUE(outcomes.waitFor(8).at(7).items);
}

}  // namespace
}  // namespace larkspan::tests
