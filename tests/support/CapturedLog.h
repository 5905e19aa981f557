#pragma once

#include "larkspan/platform/log/LogSink.h"
#include "tests/support/Collector.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::tests {

/// Takes what is logged while it lives, in place of the journal and standard error.
class CapturedLog {
 public:
  /// "SUBSYSTEM/CATEGORY: MESSAGE" of both channels.
  std::vector<std::string> lines() const { return sink_->lines.now(); }
  /// The messages of one channel, exactly as they were logged.
  std::vector<std::string> console() const { return sink_->console.now(); }
  std::vector<std::string> system() const { return sink_->system.now(); }
  /// The same once so many of them hold that, or when ten seconds have passed.
  std::vector<std::string> systemOnceItHas(std::string_view part, std::size_t times = 1) const {
    return sink_->system.waitUntil([part, times](const auto& all) {
      const auto has = [part](const auto& line) { return line.find(part) != line.npos; };
      return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), has)) >= times;
    });
  }

 private:
  struct Sink : platform::LogSink {
    void write(const platform::LogRecord& record) override {
      const std::string message(record.message);
      (record.channel == platform::LogChannel::console ? console : system).push(message);
      lines.push(std::string(record.subsystem).append("/").append(record.category) + ": " + message);
    }
    Collector<std::string> lines, console, system;
  };

  const std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
  const platform::ScopedLogSink scope_{sink_};
};

}  // namespace larkspan::tests
