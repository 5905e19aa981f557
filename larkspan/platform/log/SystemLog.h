#pragma once

#include "larkspan/platform/log/LogSink.h"

#include <memory>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// A handle on the machine's log for one subsystem and category. Messages go to the journal; the environment
/// variable LARKSPAN_LOG, read once, sends them elsewhere (see `makeSystemLogSink`). Without a journal they
/// are discarded.
/// Owner:   the caller.
/// Thread:  any.
/// Failure: never blocks on the journal; what it does not take is dropped and counted.
class SystemLog {
 public:
  SystemLog(std::string_view subsystem, std::string_view category)
      : subsystem_(subsystem), category_(category) {}

  bool isEnabled(LogLevel level) const { return LogSink::current(LogChannel::system)->isEnabled(level); }
  /// Writes the message whole, unless its level is disabled.
  void write(LogLevel level, std::string_view message) const;

 private:
  std::string subsystem_;
  std::string category_;
};

/// The sink for a value of LARKSPAN_LOG: "stderr", "none", "file:PATH" (appended to, one line a message), or
/// empty for the journal. Anything else, or a file that cannot be opened, is reported on standard error and
/// means the journal.
std::shared_ptr<LogSink> makeSystemLogSink(std::string_view setting);

}  // namespace larkspan::platform
