#pragma once

#include "larkspan/host/LKSExtensionNotifier.h"
#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/runtime/LKSOperationQueue.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace larkspan::cli {

using Handle = std::shared_ptr<LKSOpaqueExtension>;

/// What became of a question: items, or the reason in English why there are none. An extension's own error
/// may come with items.
struct Answer {
  std::optional<Items> items;
  std::optional<std::string> error;
};

/// Asks extensions, with one limit of time for everything.
/// Owner:   the program, for its life.
/// Thread:  the main queue's; that is where it calls back, too.
/// Failure: each question has one answer; those that are open when the time has passed are answered with an
///          error that names the extension, whose process is killed.
class Asking {
 public:
  using Done = std::function<void(Answer)>;
  using Found = std::function<void(const std::vector<Handle>&)>;

  /// `late` is called once, when the time has passed and after open questions have been answered.
  Asking(double timeout, std::function<void()> late);

  /// Finds the extensions: calls back with the whole set, sorted by identifier, and again whenever it
  /// changes.
  void find(Found found);
  /// Runs the operation on the extension; the answer is without the command item.
  void fetch(std::shared_ptr<LKSExtensionOperation> operation, const Handle& extension, Done done);
  /// Sends the command; the answer is the whole reply.
  void exchange(const std::string& command, const Items& items, const Handle& extension, Done done);
  /// "within 60 seconds"
  std::string limitText() const;

 private:
  struct Open {
    Handle extension;
    Done done;
    platform::NotificationCenter::Token token;
  };

  uint64_t open(const Handle& extension, Done done);
  void answer(uint64_t question, Answer answer);
  void expire();

  const double timeout_;
  const std::function<void()> late_;
  const std::shared_ptr<LKSOperationQueue> queue_ = std::make_shared<LKSOperationQueue>();
  const std::shared_ptr<LKSExtensionNotifier> notifier_ = LKSExtensionNotifier::init();
  std::shared_ptr<LKSExtensionNotifierDelegate> delegate_;
  uint64_t lastQuestion_ = 0;
  std::map<uint64_t, Open> open_;
};

}  // namespace larkspan::cli
