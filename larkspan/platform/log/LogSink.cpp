#include "larkspan/platform/log/LogSink.h"

#include "larkspan/platform/log/StreamSink.h"
#include "larkspan/platform/log/SystemLog.h"

#include <cstdlib>
#include <mutex>
#include <utility>

#include <unistd.h>

namespace larkspan::platform {
namespace {

struct Installed {
  std::mutex mutex;
  std::shared_ptr<LogSink> sink;
};

Installed& installed() {
  static Installed* instance = new Installed;
  return *instance;
}

std::shared_ptr<LogSink> exchangeInstalled(std::shared_ptr<LogSink> sink) {
  std::lock_guard lock(installed().mutex);
  return std::exchange(installed().sink, std::move(sink));
}

}  // namespace

std::shared_ptr<LogSink> LogSink::current(LogChannel channel) {
  {
    std::lock_guard lock(installed().mutex);
    if (installed().sink) return installed().sink;
  }
  if (channel == LogChannel::console) {
    static auto* console = new std::shared_ptr<LogSink>(std::make_shared<StreamSink>(STDERR_FILENO));
    return *console;
  }
  static auto* system = new std::shared_ptr<LogSink>([] {
    const char* setting = std::getenv("LARKSPAN_LOG");
    return makeSystemLogSink(setting ? setting : "");
  }());
  return *system;
}

ScopedLogSink::ScopedLogSink(std::shared_ptr<LogSink> sink) : previous_(exchangeInstalled(std::move(sink))) {}

ScopedLogSink::~ScopedLogSink() { exchangeInstalled(std::move(previous_)); }

}  // namespace larkspan::platform
