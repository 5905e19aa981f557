#pragma once

#include "larkspan/platform/log/LogSink.h"

namespace larkspan::platform {

/// Writes each message as one line with one write(2): "2026-11-22T20:46:54.123Z PROGRAM[PID] MESSAGE", and
/// for the system log "SUBSYSTEM:CATEGORY LEVEL: " before the message. Control characters are escaped as \n,
/// \t, \xHH.
/// Owner:  borrows the descriptor unless told to close it.
/// Thread: any.
class StreamSink : public LogSink {
 public:
  enum class Closes { no, yes };
  explicit StreamSink(int descriptor, Closes closes = Closes::no)
      : descriptor_(descriptor), closes_(closes) {}
  ~StreamSink() override;
  StreamSink(const StreamSink&) = delete;
  StreamSink& operator=(const StreamSink&) = delete;

  void write(const LogRecord& record) override;

 private:
  const int descriptor_;
  const Closes closes_;
};

}  // namespace larkspan::platform
