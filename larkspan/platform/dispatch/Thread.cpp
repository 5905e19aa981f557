#include "larkspan/platform/dispatch/Thread.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

thread_local bool lowPriority = false;

void startHere(const char* name, Task body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([name, body = std::move(body)]() mutable {
      pthread_setname_np(pthread_self(), name);
      body();
    }).detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// A thread inherits its creator's priority and cannot raise it again. So whatever a low thread wants
// started is started by a thread that was made before the first low one.
class Starter {
 public:
  static Starter& shared() {
    static auto* const starter = new Starter;
    return *starter;
  }

  void start(const char* name, Task body) {
    Request request{.name = name, .body = std::move(body), .done = false, .refusal = nullptr};
    std::unique_lock lock(mutex_);
    requests_.push_back(&request);
    wake_.notify_one();
    answered_.wait(lock, [&request] { return request.done; });
    if (request.refusal) std::rethrow_exception(request.refusal);
  }

 private:
  struct Request {
    const char* name;
    Task body;
    bool done = false;
    std::exception_ptr refusal;
  };

  Starter() {
    startHere("lks-starter", [this] {
      std::unique_lock lock(mutex_);
      for (;;) {
        wake_.wait(lock, [this] { return !requests_.empty(); });
        for (Request* request : requests_) {
          try {
            startHere(request->name, std::move(request->body));
          } catch (...) {
            request->refusal = std::current_exception();
          }
          request->done = true;
        }
        requests_.clear();
        answered_.notify_all();
      }
    });
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable answered_;
  std::vector<Request*> requests_;  // Of callers who wait.
};

}  // namespace

void startThread(const char* name, Task body) {
  if (lowPriority)
    Starter::shared().start(name, std::move(body));
  else
    startHere(name, std::move(body));
}

void startLowPriorityThread(const char* name, Task body) {
  Starter::shared();
  startThread(name, [body = std::move(body)]() mutable {
    lowPriority = true;
    // setpriority(2), sched(7) and ioprio_set(2) act on one thread when given its id or 0.
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
    const sched_param parameters{};
    sched_setscheduler(0, SCHED_BATCH, &parameters);
    constexpr int kWhoProcess = 1;
    constexpr int kBestEffortLowest = (2 << 13) | 7;
    syscall(SYS_ioprio_set, kWhoProcess, 0, kBestEffortLowest);
    body();
  });
}

bool isLowPriorityThread() { return lowPriority; }

bool isInitialThread() {
  thread_local const bool initial = gettid() == getpid();
  return initial;
}

}  // namespace larkspan::platform
