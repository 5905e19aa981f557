#pragma once

#include "larkspan/platform/log/LogSink.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace larkspan::platform {

/// Writes to the journal in its native protocol (systemd.io/JOURNAL_NATIVE_PROTOCOL): one datagram a message
/// with MESSAGE=, PRIORITY=, SUBSYSTEM=, CATEGORY= and SYSLOG_IDENTIFIER=; what is too large for a datagram
/// travels in a sealed memfd.
/// Thread:  any; never blocks.
/// Failure: a message that is not taken, or for which there is no descriptor, is dropped; the next one that
///          is says in LARKSPAN_DROPPED= how many were.
class JournalSink : public LogSink {
 public:
  explicit JournalSink(std::string_view socketPath = "/run/systemd/journal/socket");
  ~JournalSink() override;
  JournalSink(const JournalSink&) = delete;
  JournalSink& operator=(const JournalSink&) = delete;

  void write(const LogRecord& record) override;

 private:
  int socket();

  const std::string socketPath_;
  std::atomic<int> socket_ = -1;
  std::atomic<uint64_t> dropped_ = 0;
};

}  // namespace larkspan::platform
