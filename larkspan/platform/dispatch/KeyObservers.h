#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace larkspan::platform {

enum class KeyChange {
  will,  ///< The value is about to change; reading it gives the old one.
  did,   ///< The value has changed.
};

/// Keeps a handler registered; dropping it unregisters. Once that has returned the handler does not start any
/// more; it may still be running on another thread. May outlive what it observes.
class [[nodiscard]] KeyObservation {
 public:
  KeyObservation() = default;
  explicit KeyObservation(std::shared_ptr<void> registration) : registration_(std::move(registration)) {}

 private:
  std::shared_ptr<void> registration_;
};

/// The handlers registered for an object's named values.
/// Thread: any; a handler runs on the thread that announces the change.
class KeyObservers {
 public:
  using Handler = std::function<void(KeyChange)>;

  KeyObservers();
  ~KeyObservers();
  KeyObservers(const KeyObservers&) = delete;
  KeyObservers& operator=(const KeyObservers&) = delete;

  KeyObservation observe(std::string_view key, Handler handler);
  /// Calls the handlers of `key`, in the order of registration.
  void announce(std::string_view key, KeyChange change) const;

 private:
  struct List;
  const std::shared_ptr<List> list_;
};

}  // namespace larkspan::platform
