#pragma once

namespace larkspan::platform {

/// Replaces a process-wide facility by another implementation of it for as long as this lives. The facility's
/// class offers `static std::atomic<T*>& slot()`, which holds the implementation in use.
/// Owner:  the caller keeps both this and the replacement alive while anybody may use the facility.
/// Thread: installed and removed while no other thread uses the facility; nests.
template <typename T>
class Installed {
 public:
  explicit Installed(T& replacement) : previous_(T::slot().exchange(&replacement)) {}
  ~Installed() { T::slot().store(previous_); }
  Installed(const Installed&) = delete;
  Installed& operator=(const Installed&) = delete;

 private:
  T* previous_;
};

}  // namespace larkspan::platform
