#include "larkspan/platform/ipc/Peer.h"

#include <sys/socket.h>

// Of Linux 6.5; the C library's headers may be older.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace larkspan::platform {

std::string Peer::description() const {
  return "process " + std::to_string(process) + " of user " + std::to_string(user);
}

std::optional<Peer> peerOf(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  Peer peer{credentials.uid, credentials.gid, credentials.pid, nullptr};
  int handle = -1;
  size = sizeof handle;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &handle, &size) == 0)
    peer.handle = std::make_shared<const Descriptor>(handle);
  return peer;
}

}  // namespace larkspan::platform
