#pragma once

#include <cstddef>

#include <sys/types.h>

namespace larkspan::benchmarks {

/// This program once more, as the process at the other end: `--peer ROLE` with a socket as its descriptor 3.
/// Ends it when it goes.
class PeerProcess {
 public:
  explicit PeerProcess(const char* role);
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;

  /// This end of the socket; stays the peer's own.
  int socket() const { return socket_; }

 private:
  int socket_ = -1;
  pid_t process_ = -1;
};

inline constexpr int kPeerSocket = 3;

// The roles; each serves its socket until end of file and answers the exit status.
int serveRaw();
int serveCapnProto();
int serveExtension(int items);

/// How many bytes the answer with all items takes between an extension and its host.
std::size_t bytesOfItems();

}  // namespace larkspan::benchmarks
