#include "larkspan/platform/base/NotificationCenter.h"

#include "larkspan/platform/base/Value.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace larkspan::platform {

struct NotificationCenter::Observers {
  std::mutex mutex;
  std::vector<std::shared_ptr<Token::Registration>> list;
};

struct NotificationCenter::Token::Registration {
  std::weak_ptr<Observers> observers;
  std::optional<std::string> name;
  const Object* object = nullptr;
  Handler handler;

  // Guards what follows, never held while the handler runs: handlers post, so a lock held across them could
  // close a circle between two threads.
  std::mutex mutex;
  std::condition_variable returned;
  std::vector<std::thread::id> running;
  bool ended = false;

  void run(const Notification& notification) {
    {
      const std::lock_guard lock(mutex);
      if (ended) return;
      running.push_back(std::this_thread::get_id());
    }
    struct Return {
      Registration& registration;
      ~Return() {
        const std::lock_guard lock(registration.mutex);
        auto& threads = registration.running;
        threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
        registration.returned.notify_all();
      }
    } const atEnd{*this};
    handler(notification);
  }

  void end() {
    std::unique_lock lock(mutex);
    ended = true;
    const auto self = std::this_thread::get_id();
    returned.wait(lock, [&] {
      return std::all_of(running.begin(), running.end(), [&](auto id) { return id == self; });
    });
  }
};

NotificationCenter::NotificationCenter() : observers_(std::make_shared<Observers>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;
  return *center;
}

NotificationCenter::Token& NotificationCenter::Token::operator=(Token&& other) noexcept {
  reset();
  registration_ = std::move(other.registration_);
  return *this;
}

void NotificationCenter::Token::reset() {
  const auto registration = std::exchange(registration_, nullptr);
  if (!registration) return;
  if (const auto observers = registration->observers.lock()) {
    const std::lock_guard lock(observers->mutex);
    std::erase(observers->list, registration);
  }
  registration->end();
}

NotificationCenter::Token NotificationCenter::addObserver(std::optional<std::string> name,
                                                          const Object* object, Handler handler) {
  Token token;
  token.registration_ = std::make_shared<Token::Registration>();
  token.registration_->observers = observers_;
  token.registration_->name = std::move(name);
  token.registration_->object = object;
  token.registration_->handler = std::move(handler);
  const std::lock_guard lock(observers_->mutex);
  observers_->list.push_back(token.registration_);
  return token;
}

void NotificationCenter::post(std::string_view name, std::shared_ptr<Object> object, Dictionary userInfo) {
  std::vector<std::shared_ptr<Token::Registration>> told;
  {
    const std::lock_guard lock(observers_->mutex);
    for (const auto& registration : observers_->list) {
      if ((!registration->name || *registration->name == name) &&
          (!registration->object || registration->object == object.get())) {
        told.push_back(registration);
      }
    }
  }
  if (told.empty()) return;
  const Notification notification{std::string(name), std::move(object), std::move(userInfo)};
  for (const auto& registration : told) registration->run(notification);
}

}  // namespace larkspan::platform
