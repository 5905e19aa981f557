#include "larkspan/platform/dispatch/KeyObservers.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace larkspan::platform {
namespace {

struct Observer {
  std::string key;
  KeyObservers::Handler handler;
  std::atomic<bool> registered{true};
};

}  // namespace

struct KeyObservers::List {
  std::mutex mutex;
  std::vector<std::shared_ptr<Observer>> observers;
};

KeyObservers::KeyObservers() : list_(std::make_shared<List>()) {}
KeyObservers::~KeyObservers() = default;

KeyObservation KeyObservers::observe(std::string_view key, Handler handler) {
  auto observer = std::make_shared<Observer>();
  observer->key = key;
  observer->handler = std::move(handler);
  {
    const std::lock_guard lock(list_->mutex);
    list_->observers.push_back(observer);
  }
  return KeyObservation(std::shared_ptr<void>(nullptr, [observer, list = std::weak_ptr(list_)](void*) {
    observer->registered = false;
    if (const auto alive = list.lock()) {
      const std::lock_guard lock(alive->mutex);
      std::erase(alive->observers, observer);
    }
  }));
}

void KeyObservers::announce(std::string_view key, KeyChange change) const {
  std::vector<std::shared_ptr<Observer>> called;
  {
    const std::lock_guard lock(list_->mutex);
    for (const auto& observer : list_->observers)
      if (observer->key == key) called.push_back(observer);
  }
  for (const auto& observer : called)
    if (observer->registered) observer->handler(change);
}

}  // namespace larkspan::platform
