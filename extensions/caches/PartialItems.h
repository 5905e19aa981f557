#pragma once

#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/base/Clock.h"

#include <chrono>
#include <memory>
#include <mutex>

namespace larkspan::caches {

/// Pushes items to the host while a long walk goes on: what is found first at once, the rest gathered for a
/// tenth of a second each, so that a window fills up and no message is sent for each item. What waits when
/// this ends is dropped, as the reply has it.
/// Thread: any.
class PartialItems {
 public:
  ~PartialItems();
  void add(const MessageItem& item);

 private:
  static constexpr std::chrono::milliseconds kInterval{100};
  struct Waiting {
    std::mutex mutex;
    Items items;
    platform::MonotonicTime sentAt = -platform::MonotonicTime(kInterval);
  };
  static void send(Waiting& waiting);

  const std::shared_ptr<Waiting> waiting_ = std::make_shared<Waiting>();
};

}  // namespace larkspan::caches
