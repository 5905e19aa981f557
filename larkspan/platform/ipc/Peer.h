#pragma once

#include "larkspan/platform/base/Descriptor.h"

#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

namespace larkspan::platform {

/// Who is at the other end of a Unix socket, as the kernel noted when the two were connected (SO_PEERCRED in unix(7)).
/// A value.
struct Peer {
  uid_t user;
  gid_t group;
  pid_t process;
  /// The process's pidfd, which no other process gets however often numbers are used again (SO_PEERPIDFD, Linux 6.5); else
  /// null.
  std::shared_ptr<const Descriptor> handle;

  /// "process 12 of user 1000".
  std::string description() const;
};

/// Nothing when the kernel does not tell; errno says why.
std::optional<Peer> peerOf(int socket);

}  // namespace larkspan::platform
