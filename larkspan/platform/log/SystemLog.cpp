#include "larkspan/platform/log/SystemLog.h"

#include "larkspan/platform/log/JournalSink.h"
#include "larkspan/platform/log/StreamSink.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

class NoSink : public LogSink {
 public:
  bool isEnabled(LogLevel) const override { return false; }
  void write(const LogRecord&) override {}
};

void reportToStandardError(std::string_view message) {
  StreamSink(STDERR_FILENO).write({LogChannel::console, LogLevel::fault, {}, {}, message});
}

}  // namespace

void SystemLog::write(LogLevel level, std::string_view message) const {
  const std::shared_ptr<LogSink> sink = LogSink::current(LogChannel::system);
  if (sink->isEnabled(level)) sink->write({LogChannel::system, level, subsystem_, category_, message});
}

std::shared_ptr<LogSink> makeSystemLogSink(std::string_view setting) {
  constexpr std::string_view kFile = "file:";
  if (setting == "none") return std::make_shared<NoSink>();
  if (setting == "stderr") return std::make_shared<StreamSink>(STDERR_FILENO);
  if (setting.starts_with(kFile)) {
    const std::string path(setting.substr(kFile.size()));
    const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (file >= 0) return std::make_shared<StreamSink>(file, StreamSink::Closes::yes);
    reportToStandardError("LARKSPAN_LOG: " + path + ": " + std::strerror(errno));
  } else if (!setting.empty()) {
    reportToStandardError("LARKSPAN_LOG must be stderr, none or file:PATH, not " + std::string(setting));
  }
  return std::make_shared<JournalSink>();
}

}  // namespace larkspan::platform
