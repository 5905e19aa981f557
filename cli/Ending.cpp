#include "cli/Ending.h"

#include "cli/Progress.h"
#include "cli/Text.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/IoSource.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace larkspan::cli {

namespace {

using namespace std::chrono_literals;

/// For an extension that was let go, to leave by itself.
constexpr auto kLeavePatience = 500ms;
/// For one that was killed, to be reaped.
constexpr auto kKillPatience = 50ms;

struct Extensions {
  std::mutex mutex;
  std::vector<std::shared_ptr<LKSOpaqueExtension>> handles;
};

Extensions& extensions() {
  static auto* value = new Extensions;
  return *value;
}

std::vector<std::shared_ptr<LKSOpaqueExtension>> allExtensions() {
  const std::lock_guard lock(extensions().mutex);
  return extensions().handles;
}

/// The library reaps; this only looks whether there is a child left. What still runs after that is killed by
/// the kernel when the program has ended, since extensions are started with a parent death signal.
void waitForChildren(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  siginfo_t info;
  while (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
}

/// Set once a signal ends the program.
std::atomic<bool> interrupted{false};

/// What fails because extensions are being killed is nobody's business, and decides no exit status.
void keepQuietWhenInterrupted() {
  while (interrupted) pause();
}

[[noreturn]] void endNow(int status) {
  interrupted = true;
  Progress::end();
  for (const auto& handle : allExtensions()) handle->abandon();
  waitForChildren(kKillPatience);
  _exit(status);
}

}  // namespace

void watchSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // Under nohup(1) it stays ignored, which a blocked signal is not.
  struct sigaction hangUp;
  if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  // Not on the main thread, which may wait for a reader of standard output; nor does the ending run on the
  // input/output thread, which reaps.
  static const auto* const source =
      new auto(platform::IoSource::make(descriptor, EPOLLIN, [descriptor, ending = false](uint32_t) mutable {
        signalfd_siginfo info;
        if (read(descriptor, &info, sizeof info) != sizeof info) return;
        const int status = 128 + static_cast<int>(info.ssi_signo);
        if (ending) _exit(status);
        ending = true;
        platform::DispatchQueue::global(platform::QualityOfService::userInteractive)->async([status] {
          endNow(status);
        });
      }));
  if (!*source) pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void endWithProgram(std::shared_ptr<LKSOpaqueExtension> extension) {
  const std::lock_guard lock(extensions().mutex);
  auto& handles = extensions().handles;
  if (std::find(handles.begin(), handles.end(), extension) == handles.end())
    handles.push_back(std::move(extension));
}

void finish(int status) {
  keepQuietWhenInterrupted();
  Progress::erase();
  for (const auto& handle : allExtensions()) {
    // Its process sees end of file. One that is still starting has no context yet.
    if (const auto context = handle->context()) {
      context->auxiliaryConnection()->invalidate();
    } else {
      handle->abandon();
    }
  }
  waitForChildren(kLeavePatience);
  std::exit(status);
}

void complain(std::string_view message) {
  keepQuietWhenInterrupted();
  Progress::erase();
  std::string line = "larkspan: ";
  line.append(printable(message)).append("\n");
  // There is nobody to tell that it failed.
  [[maybe_unused]] const ssize_t count = write(STDERR_FILENO, line.data(), line.size());
}

void fail(std::string_view message, int status) {
  complain(message);
  finish(status);
}

}  // namespace larkspan::cli
