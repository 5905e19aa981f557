#pragma once

#include <memory>
#include <string_view>

namespace larkspan::platform {

/// How much a message matters.
enum class LogLevel {
  standard,  ///< What happened, for whoever looks later.
  fault,     ///< Something is wrong in this program.
};

/// Which of the two logs a message is for.
enum class LogChannel {
  system,   ///< The machine's log, ordered by subsystem and category.
  console,  ///< Standard error, for developers; its records have neither subsystem nor category.
};

/// One message on its way to a sink; the texts live until `write` returns.
struct LogRecord {
  LogChannel channel;
  LogLevel level;
  std::string_view subsystem;
  std::string_view category;
  std::string_view message;
};

/// Where log messages go.
/// Thread:  `write` is called on the thread that logs, by several at once, and must not log.
/// Failure: a message that cannot be written is lost; nobody is told but the log itself.
class LogSink {
 public:
  virtual ~LogSink() = default;
  /// Whether messages of this level go anywhere.
  virtual bool isEnabled(LogLevel) const { return true; }
  virtual void write(const LogRecord& record) = 0;

  /// The sink that a channel's messages go to at present.
  static std::shared_ptr<LogSink> current(LogChannel channel);
};

/// Sends the messages of both channels to a sink for as long as it lives; the last one made wins. For tests.
class ScopedLogSink {
 public:
  explicit ScopedLogSink(std::shared_ptr<LogSink> sink);
  ~ScopedLogSink();
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  std::shared_ptr<LogSink> previous_;
};

}  // namespace larkspan::platform
