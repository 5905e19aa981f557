#pragma once

#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Object.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// What observers are told: a name, the object that it is about (may be null) and further information.
struct Notification {
  std::string name;
  std::shared_ptr<Object> object;
  Dictionary userInfo;
};

/// Tells observers what happened, on the thread that posts and before `post` returns.
/// Owner:   `defaultCenter()` lives as long as the process; others belong to their maker.
/// Thread:  any. Observers may come, go and post while a notification is delivered: one that registers during
///          a post hears the next one. Two posts on two threads may run one handler twice at a time.
/// Failure: an exception of a handler leaves `post`; later observers are not told.
class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  /// Ends a registration when destroyed or reset. Then the handler does not run any more, and is not running
  /// on another thread: do not hold a lock that the handler takes. Within the handler itself it does not
  /// wait.
  class Token {
   public:
    Token() = default;
    Token(Token&&) noexcept = default;
    Token& operator=(Token&& other) noexcept;
    ~Token() { reset(); }
    void reset();

   private:
    friend class NotificationCenter;
    struct Registration;
    std::shared_ptr<Registration> registration_;
  };

  NotificationCenter();
  ~NotificationCenter();
  static NotificationCenter& defaultCenter();

  /// Calls the handler for notifications of this name (nothing: any) about this object (null: any). The
  /// object is only compared, not kept alive.
  [[nodiscard]] Token addObserver(std::optional<std::string> name, const Object* object, Handler handler);

  void post(std::string_view name, std::shared_ptr<Object> object = nullptr, Dictionary userInfo = {});

 private:
  struct Observers;
  std::shared_ptr<Observers> observers_;
};

}  // namespace larkspan::platform
