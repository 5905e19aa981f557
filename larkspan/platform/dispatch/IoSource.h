#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace larkspan::platform {

/// Watches one descriptor on the process's single input/output thread (epoll, see epoll(7)).
/// Owner:  the caller, and the input/output thread while the handler runs. Dropping the last reference
///         cancels.
/// Thread: the handler runs on the input/output thread and must not block; every function may be called from
///         any thread.
/// Limits: the descriptor is borrowed and must stay open until `cancel()` has returned. One source a
///         descriptor (EEXIST); regular files cannot be watched (EPERM).
class IoSource {
 public:
  /// Gets the epoll events (EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR) that are ready, level-triggered.
  using Handler = std::function<void(uint32_t events)>;

  /// Starts watching; nothing when the kernel refuses (errno says why).
  static std::shared_ptr<IoSource> make(int descriptor, uint32_t events, Handler handler);
  virtual ~IoSource() = default;

  /// Replaces the set of watched events; 0 pauses, EPOLLHUP and EPOLLERR included. Called on the
  /// input/output thread it holds at once; from elsewhere a handler call may be under way.
  virtual void setEvents(uint32_t events) = 0;
  /// For a handler: its own source pauses for that time and then watches for EPOLLIN, unless it is cancelled.
  static void pause(std::chrono::milliseconds time);
  /// Stops watching. The handler is not running and never runs again once this returns, unless this is
  /// called from the handler itself. Idempotent. Drops the handler and what it captured. The caller must not
  /// hold a lock that the handler takes.
  virtual void cancel() = 0;
};

/// Whether the caller is on the input/output thread.
bool isIoThread();

}  // namespace larkspan::platform
