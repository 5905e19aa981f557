#pragma once

#include "larkspan/platform/base/Descriptor.h"

#include <optional>
#include <string>

#include <sys/types.h>

namespace larkspan::platform {

/// For whom this process runs.
struct Identity {
  uid_t realUser;
  uid_t effectiveUser;
  /// From the password database's entry of the real user, whatever HOME says; empty where there is no entry.
  std::string homeFolder;

  /// Read once, on first use, and kept.
  /// Thread: any.
  static Identity current();
};

/// Replaces `Identity::current()` for as long as it lives; afterwards it is what it was. For tests.
class ScopedIdentity {
 public:
  explicit ScopedIdentity(Identity identity);
  ~ScopedIdentity();
  ScopedIdentity(const ScopedIdentity&) = delete;
  ScopedIdentity& operator=(const ScopedIdentity&) = delete;

 private:
  std::optional<Identity> previous_;
};

/// The home folder of a user by the password database (getpwuid_r(3)); empty where there is none.
std::string homeFolderOf(uid_t user);

/// Who opened the other end of a unix socket, as the kernel recorded it when it was connected (unix(7)).
struct PeerCredentials {
  pid_t process;
  uid_t user;
  gid_t group;
  /// Refers to the very process, even if its id is used again; empty before Linux 6.5 and when the peer has
  /// been reaped.
  Descriptor processHandle;
};

/// Nothing when it is no connected unix socket; errno says why.
std::optional<PeerCredentials> peerCredentials(int socket);

}  // namespace larkspan::platform
