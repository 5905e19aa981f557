#include "cli/Asking.h"

#include "cli/Ending.h"
#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <cstdio>

namespace larkspan::cli {

using platform::DispatchQueue;
using platform::Error;

namespace {

std::optional<std::string> textOf(const std::optional<Error>& error) {
  return error ? std::optional(error->localizedDescription()) : std::nullopt;
}

/// Moves what is found to the main queue.
class Delegate final : public LKSExtensionNotifierDelegate {
 public:
  explicit Delegate(Asking::Found found) : found_(std::make_shared<Asking::Found>(std::move(found))) {}

  void extensionNotifierDidGetExtensions(LKSExtensionNotifier&,
                                         const std::vector<Handle>& extensions) override {
    DispatchQueue::main()->async([found = found_, extensions] { (*found)(extensions); });
  }
  void extensionNotifierDidError(LKSExtensionNotifier&, const Error& error) override {
    DispatchQueue::main()->async([text = *textOf(error)] { complain(text); });
  }

 private:
  const std::shared_ptr<Asking::Found> found_;
};

}  // namespace

Asking::Asking(double timeout, std::function<void()> late) : timeout_(timeout), late_(std::move(late)) {
  DispatchQueue::main()->after(platform::nanosecondsFromSeconds(timeout), [this] { expire(); });
}

void Asking::find(Found found) {
  delegate_ = std::make_shared<Delegate>(std::move(found));
  notifier_->setDelegate(delegate_);
  notifier_->start();
}

void Asking::fetch(std::shared_ptr<LKSExtensionOperation> operation, const Handle& extension, Done done) {
  const uint64_t question = open(extension, std::move(done));
  operation->setExtension(extension);
  open_[question].token = platform::NotificationCenter::defaultCenter().addObserver(
      std::string(std::string_view(LKSOperationDidFinishNotification)), operation.get(),
      [this, question, operation](const platform::Notification&) {
        answer(question, {operation->returnedItems(), textOf(operation->error())});
      });
  queue_->addOperation(std::move(operation));
}

void Asking::exchange(const std::string& command, const Items& items, const Handle& extension, Done done) {
  const uint64_t question = open(extension, std::move(done));
  Items all{*LKSCommand::initLKSCommandItem(command)};
  all.insert(all.end(), items.begin(), items.end());
  extension->processInputItems(
      all, [this, question](const std::optional<Items>& reply, const std::optional<Error>& error) {
        // As LKSExtensionOperation does it: the first item of a reply decides.
        auto failure = textOf(reply && !reply->empty() ? LKSCommand(reply->front()).lks_error() : error);
        if (!failure && (!reply || reply->empty())) failure = "the extension's reply is empty";
        DispatchQueue::main()->async(
            [this, question, result = Answer{reply, failure}] { answer(question, result); });
      });
}

std::string Asking::limitText() const {
  char text[48];
  std::snprintf(text, sizeof text, "within %.9g second%s", timeout_, timeout_ == 1 ? "" : "s");
  return text;
}

uint64_t Asking::open(const Handle& extension, Done done) {
  endWithProgram(extension);
  open_[++lastQuestion_] = {extension, std::move(done), {}};
  return lastQuestion_;
}

void Asking::answer(uint64_t question, Answer answer) {
  // The token goes when the handler has returned: it owns what this runs in.
  const auto node = open_.extract(question);
  if (node) node.mapped().done(std::move(answer));
}

void Asking::expire() {
  // Whoever is answered may ask again; that question comes too late as well.
  while (!open_.empty()) {
    const auto& [question, open] = *open_.begin();
    open.extension->abandon();
    answer(question, {std::nullopt, open.extension->identifier() + " did not answer " + limitText()});
  }
  late_();
}

}  // namespace larkspan::cli
