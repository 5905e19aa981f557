#pragma once

#include "larkspan/platform/dispatch/SerialQueue.h"

namespace larkspan::platform {

/// The queue of the initial thread: a serial queue that a descriptor announces instead of a worker running
/// it.
class MainQueue final : public SerialQueue {
 public:
  static MainQueue& shared();

  int descriptor();
  /// Runs what is due now; with `untilStopped`, only until somebody calls `stop()`.
  std::size_t drain(bool untilStopped = false);
  void run();
  void stop();

 private:
  friend const std::shared_ptr<DispatchQueue>& DispatchQueue::main();
  MainQueue();
  void checkCaller() const;
  bool runNow(Task& task) override;
  void schedule() override;

  std::atomic<int> descriptor_{-1};
  std::atomic<bool> stopping_{false};
};

}  // namespace larkspan::platform
