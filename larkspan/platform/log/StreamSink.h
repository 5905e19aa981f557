#pragma once

#include "larkspan/platform/log/LogSink.h"

#include <cstddef>
#include <mutex>
#include <string_view>

namespace larkspan::platform {

/// Writes each message as one line: "2026-11-22T20:46:54.123Z PROGRAM[PID] MESSAGE", and for the system log
/// "SUBSYSTEM:CATEGORY LEVEL: " before the message. Control characters are escaped as \n, \t, \xHH.
/// Owner:   borrows the descriptor unless told to close it.
/// Thread:  any; does not wait for the reader of a pipe, unless another process fills it in between looking for room
///          and writing.
/// Failure: a line for which there is no room is dropped, a long one perhaps with its beginning written; the next
///          that goes through is preceded by one that says how many were.
/// Limits:  up to 4096 bytes (PIPE_BUF), the account of a loss included, is one write(2); what is longer comes in
///          pieces of that size, unless the descriptor has a position, as files have.
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
  bool put(std::string_view line);

  const int descriptor_;
  const Closes closes_;
  std::mutex mutex_;
  std::size_t dropped_ = 0;
  bool isCut_ = false;  // The last line that was written has no end.
};

}  // namespace larkspan::platform
