#include "larkspan/platform/log/JournalSink.h"

#include "larkspan/platform/base/Descriptor.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <span>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

/// The pieces of one record, gathered without copying the texts.
class Fields {
 public:
  void add(std::string_view name, std::string_view value) {
    append(name);
    if (value.find('\n') == std::string_view::npos) {
      append("=");
    } else {
      // A value with line breaks follows its length, 64 bits little-endian.
      auto& length = lengths_[lengthCount_++];
      for (std::size_t i = 0; i < length.size(); ++i) length[i] = static_cast<char>(value.size() >> (8 * i));
      append("\n");
      append({length.data(), length.size()});
    }
    append(value);
    append("\n");
  }

  std::span<iovec> pieces() { return {pieces_.data(), count_}; }

 private:
  static constexpr std::size_t kMaxFields = 6;

  void append(std::string_view text) { pieces_[count_++] = {const_cast<char*>(text.data()), text.size()}; }

  std::array<iovec, kMaxFields * 5> pieces_;
  std::size_t count_ = 0;
  std::array<std::array<char, 8>, kMaxFields> lengths_;
  std::size_t lengthCount_ = 0;
};

bool sendThroughMemory(int socket, msghdr message) {
  const int memory = memfd_create("larkspan-log", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (memory < 0) return false;
  std::size_t size = 0;
  for (const iovec& piece : std::span(message.msg_iov, message.msg_iovlen)) size += piece.iov_len;
  bool sent =
      writev(memory, message.msg_iov, static_cast<int>(message.msg_iovlen)) == static_cast<ssize_t>(size) &&
      fcntl(memory, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0;
  if (sent) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof memory)] = {};
    message.msg_iov = nullptr;
    message.msg_iovlen = 0;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof memory);
    std::memcpy(CMSG_DATA(header), &memory, sizeof memory);
    sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
  }
  close(memory);
  return sent;
}

bool send(int socket, const std::string& path, std::span<iovec> pieces) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  msghdr message{};
  message.msg_name = &address;
  message.msg_namelen = sizeof address;
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  if (sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
  return (errno == EMSGSIZE || errno == ENOBUFS) && sendThroughMemory(socket, message);
}

}  // namespace

JournalSink::JournalSink(std::string_view socketPath) : socketPath_(socketPath) { socket(); }

JournalSink::~JournalSink() {
  if (socket_ >= 0) close(socket_);
}

/// -1 where there is no descriptor for it.
int JournalSink::socket() {
  return keptDescriptor(socket_, [] { return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
}

void JournalSink::write(const LogRecord& record) {
  // Priorities as in syslog(3): notice, and critical.
  Fields fields;
  fields.add("PRIORITY", record.level == LogLevel::fault ? "2" : "5");
  fields.add("SYSLOG_IDENTIFIER", program_invocation_short_name);
  fields.add("SUBSYSTEM", record.subsystem);
  fields.add("CATEGORY", record.category);
  fields.add("MESSAGE", record.message);
  const uint64_t dropped = dropped_.exchange(0, std::memory_order_relaxed);
  char digits[20];
  if (dropped > 0) {
    fields.add("LARKSPAN_DROPPED", {digits, std::to_chars(digits, digits + sizeof digits, dropped).ptr});
  }
  if (!send(socket(), socketPath_, fields.pieces())) {
    dropped_.fetch_add(dropped + 1, std::memory_order_relaxed);
  }
}

}  // namespace larkspan::platform
