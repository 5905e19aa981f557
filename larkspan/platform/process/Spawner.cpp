#include "larkspan/platform/process/Spawner.h"

#include "larkspan/platform/dispatch/Thread.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// How a child is born
//
// clone(2) with CLONE_VM and CLONE_VFORK: the child borrows this process's memory while the thread that made
// it sleeps, until it calls execve(2) or ends. No page table is copied, however large the host is, and the
// child tells what failed by writing it into the plan's memory. The price is that the child must not disturb
// what it borrows: it makes system calls directly, past the C library and the sanitizers that watch it, and
// the thread that makes children has all signals blocked (see startThread), so that no handler of the host
// runs in the child.
//
// That thread lasts as long as the process, because PR_SET_PDEATHSIG fires when the thread ends that made the
// child.

// The C library's clone(2) under its second name: the thread sanitizer takes a call of the first for a
// fork(2), after which it allows no further thread.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __clone(int (*)(void*), void*, int, void*, ...) noexcept;

namespace larkspan::platform {
namespace {

constexpr std::size_t kStackSize = 64 * 1024;

struct Job {
  const SpawnPlan& plan;
  const pid_t parent;
  Spawned result;
  bool done = false;
};

#define LARKSPAN_IN_CHILD __attribute__((no_sanitize("address", "thread", "undefined")))

/// Returns the name of the step that failed, with errno set.
LARKSPAN_IN_CHILD const char* becomeProgram(const SpawnPlan& plan, pid_t parent) {
  // All zeros is the kernel's structure for the default action without flags, and the empty set of signals.
  const char zeros[64] = {};
  constexpr std::size_t kSignalSetSize = 8;
  for (int signal = 1; signal <= 64; ++signal)
    syscall(SYS_rt_sigaction, signal, zeros, nullptr, kSignalSetSize);

  if (plan.parentDeathSignal != 0) {
    if (syscall(SYS_prctl, PR_SET_PDEATHSIG, plan.parentDeathSignal, 0, 0, 0) != 0)
      return "parent death signal";
    if (syscall(SYS_getppid) != parent) {
      errno = ESRCH;
      return "parent death signal";
    }
  }

  if (plan.ownSession && syscall(SYS_setsid) < 0) return "new session";
  if (plan.processId) {
    long number = syscall(SYS_getpid);
    int digits = 1;
    for (long rest = number; rest >= 10; rest /= 10) ++digits;
    for (; digits > 0; number /= 10) plan.processId[--digits] = static_cast<char>('0' + number % 10);
  }

  // Sources first move above all numbers asked for, so that none is overwritten before it is used.
  int end = 0;
  for (int i = 0; i < plan.passedCount; ++i) {
    if (plan.passed[i].number >= end) end = plan.passed[i].number + 1;
  }
  for (int i = 0; i < plan.passedCount; ++i) {
    const long spare = syscall(SYS_fcntl, plan.passed[i].source, F_DUPFD_CLOEXEC, end);
    if (spare < 0) return "passing a descriptor";
    plan.passed[i].spare = static_cast<int>(spare);
  }
  for (int number = 0; number < end; ++number) syscall(SYS_close, number);
  for (int i = 0; i < plan.passedCount; ++i) {
    if (syscall(SYS_dup3, plan.passed[i].spare, plan.passed[i].number, 0) < 0) return "passing a descriptor";
  }
  if (syscall(SYS_close_range, end, ~0U, 0) != 0) return "closing descriptors";

  if (plan.folder && syscall(SYS_chdir, plan.folder) != 0) return "working folder";
  if (syscall(SYS_rt_sigprocmask, SIG_SETMASK, zeros, nullptr, kSignalSetSize) != 0) return "signal mask";
  syscall(SYS_execve, plan.program, plan.arguments, plan.environment);
  return "execve";
}

LARKSPAN_IN_CHILD int childMain(void* argument) {
  Job& job = *static_cast<Job*>(argument);
  job.result.failedStep = becomeProgram(job.plan, job.parent);
  job.result.errorNumber = errno;
  syscall(SYS_exit_group, 127);
  return 127;
}

class SpawnerThread {
 public:
  static SpawnerThread& instance() {
    static SpawnerThread* thread = new SpawnerThread;
    return *thread;
  }

  void run(Job& job) {
    std::unique_lock lock(mutex_);
    jobs_.push_back(&job);
    arrived_.notify_one();
    finished_.wait(lock, [&] { return job.done; });
  }

 private:
  SpawnerThread() {
    startThread("lks-spawn", [this] { loop(); });
  }

  void loop() {
    void* stack =
        mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    std::unique_lock lock(mutex_);
    for (;;) {
      arrived_.wait(lock, [&] { return !jobs_.empty(); });
      Job& job = *jobs_.front();
      jobs_.pop_front();
      lock.unlock();
      make(job, static_cast<std::byte*>(stack));
      lock.lock();
      job.done = true;
      finished_.notify_all();
    }
  }

  static void make(Job& job, std::byte* stack) {
    Spawned& result = job.result;
    int handle = -1;
    // The stack grows down from its end on every machine that Linux runs on but one.
    const pid_t process =
        __clone(childMain, stack + kStackSize, CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &job, &handle);
    if (process < 0) {
      result.errorNumber = errno;
      result.failedStep = "clone";
      return;
    }
    Descriptor owned(handle);
    if (result.failedStep) {
      siginfo_t ignored;
      while (waitid(P_PIDFD, static_cast<id_t>(handle), &ignored, WEXITED) != 0 && errno == EINTR) {
      }
      return;
    }
    result.process = process;
    result.handle = std::move(owned);
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::condition_variable finished_;
  std::deque<Job*> jobs_;
};

}  // namespace

Spawned spawn(const SpawnPlan& plan) {
  Job job{plan, getpid(), {}};
  SpawnerThread::instance().run(job);
  return std::move(job.result);
}

}  // namespace larkspan::platform
