#pragma once

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
/// The same by the user's name (getpwnam_r(3)).
std::string homeFolderOf(const std::string& name);

}  // namespace larkspan::platform
