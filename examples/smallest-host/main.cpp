// Finds the installed extensions, asks each how much space its things take, and prints that.

#include "larkspan/host/LKSExtensionNotifier.h"
#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/platform/text/SizeText.h"
#include "larkspan/runtime/LKSOperationQueue.h"

#include <cstdio>
#include <future>
#include <utility>

using namespace larkspan;
using Handles = std::vector<std::shared_ptr<LKSOpaqueExtension>>;

// Hears of the extensions once at first and then of every change; this host wants the first set only.
struct FirstSet final : LKSExtensionNotifierDelegate {
  void extensionNotifierDidGetExtensions(LKSExtensionNotifier&, const Handles& extensions) override {
    if (!std::exchange(isKnown, true)) handles.set_value(extensions);
  }
  bool isKnown = false;
  std::promise<Handles> handles;
};

int main() {
  const auto delegate = std::make_shared<FirstSet>();
  const auto notifier = LKSExtensionNotifier::init();
  notifier->setDelegate(delegate);
  notifier->start();

  std::vector<std::shared_ptr<LKSFetchExtensionInfoOperation>> questions;
  for (const auto& extension : delegate->handles.get_future().get()) {
    questions.push_back(LKSOperation::makeOperation<LKSFetchExtensionInfoOperation>());
    questions.back()->setExtension(extension);
    LKSOperationQueue::concurrentBackgroundQueue()->addOperation(questions.back());
  }
  for (const auto& question : questions) {
    question->waitUntilFinished();
    const auto items = question->returnedItems();
    const std::string answer = items && !items->empty() ? platform::sizeText(items->front().lks_size())
                               : question->error()      ? question->error()->localizedDescription()
                                                        : "no answer";
    printf("%s: %s\n", question->extension()->identifier().c_str(), answer.c_str());
  }
}
