#pragma once

#include "larkspan/platform/log/LogSink.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larkspan::tests {

/// Takes what is logged while it lives, in place of the journal and standard error.
class CapturedLog {
 public:
  struct Line {
    platform::LogChannel channel;
    platform::LogLevel level;
    std::string subsystem, category, message;
  };

  CapturedLog() : sink_(std::make_shared<Sink>()), scope_(sink_) {}

  std::vector<Line> lines() const {
    std::lock_guard lock(sink_->mutex);
    return sink_->lines;
  }
  /// The messages of one channel, exactly as they were logged.
  std::vector<std::string> messages(platform::LogChannel channel) const {
    std::vector<std::string> result;
    for (const Line& line : lines()) {
      if (line.channel == channel) result.push_back(line.message);
    }
    return result;
  }
  std::vector<std::string> console() const { return messages(platform::LogChannel::console); }
  std::vector<std::string> system() const { return messages(platform::LogChannel::system); }

 private:
  struct Sink : platform::LogSink {
    void write(const platform::LogRecord& r) override {
      std::lock_guard lock(mutex);
      lines.push_back(
          {r.channel, r.level, std::string(r.subsystem), std::string(r.category), std::string(r.message)});
    }
    std::mutex mutex;
    std::vector<Line> lines;
  };

  std::shared_ptr<Sink> sink_;
  platform::ScopedLogSink scope_;
};

}  // namespace larkspan::tests
