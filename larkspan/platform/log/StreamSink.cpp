#include "larkspan/platform/log/StreamSink.h"

#include "larkspan/platform/base/Clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <string>

#include <poll.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

/// The terminal acts on C0, DEL and C1; the last come as C2 80 to C2 9F in UTF-8.
void appendEscaped(std::string& line, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte == 0xC2 && i + 1 < text.size() && (static_cast<unsigned char>(text[i + 1]) & 0xE0) == 0x80) {
      byte = static_cast<unsigned char>(text[++i]);
    } else if (byte >= 0x20 && byte != 0x7F) {
      line += text[i];
      continue;
    }
    if (byte == '\n') {
      line += "\\n";
    } else if (byte == '\t') {
      line += "\\t";
    } else {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      line += escape;
    }
  }
}

void appendTimeAndProgram(std::string& line) {
  using namespace std::chrono;
  const nanoseconds now = Clock::current().wallNow();
  const auto seconds = floor<std::chrono::seconds>(now);
  const std::time_t time = seconds.count();
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[80];
  std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ ",
                static_cast<int>(duration_cast<milliseconds>(now - seconds).count()));
  line += text;
  appendEscaped(line, program_invocation_short_name);
  line += '[';
  line += std::to_string(getpid());
  line += "] ";
}

}  // namespace

StreamSink::~StreamSink() {
  if (closes_ == Closes::yes) close(descriptor_);
}

void StreamSink::write(const LogRecord& record) {
  std::string line;
  line.reserve(128 + record.subsystem.size() + record.category.size() + record.message.size());
  appendTimeAndProgram(line);
  if (record.channel == LogChannel::system) {
    appendEscaped(line, record.subsystem);
    line += ':';
    appendEscaped(line, record.category);
    line += record.level == LogLevel::fault ? " fault: " : " default: ";
  }
  appendEscaped(line, record.message);
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (dropped_ > 0) {
    std::string loss(isCut_ ? "\n" : "");
    appendTimeAndProgram(loss);
    loss += std::to_string(dropped_) + (dropped_ == 1 ? " message was" : " messages were") + " dropped\n";
    line.insert(0, loss);
  }
  dropped_ = put(line) ? 0 : dropped_ + 1;
}

/// False where there is no room for all of it. Room is promised for PIPE_BUF bytes at a time (poll(2), pipe(7)).
bool StreamSink::put(std::string_view line) {
  const std::size_t piece =
      line.size() <= PIPE_BUF || lseek(descriptor_, 0, SEEK_CUR) >= 0 ? line.size() : PIPE_BUF;
  while (!line.empty()) {
    pollfd room{descriptor_, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || room.revents != POLLOUT) return false;
    const ssize_t count = ::write(descriptor_, line.data(), std::min(piece, line.size()));
    if (count <= 0) return false;
    line.remove_prefix(static_cast<std::size_t>(count));
    isCut_ = !line.empty();
  }
  return true;
}

}  // namespace larkspan::platform
