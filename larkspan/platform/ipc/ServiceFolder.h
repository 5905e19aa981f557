#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <sys/types.h>

namespace larkspan::platform {

/// The folder where a user's services listen, each at the socket of its name: `larkspan` in $XDG_RUNTIME_DIR (only this
/// process's user, freedesktop.org's basedir-spec) or in /run/user/UID, whichever belongs to the user, and else in
/// /tmp/larkspan-UID. Nobody else may write it, and no link is followed on the way to a socket.
/// Owner:  the caller; a value that can be moved.
/// Limits: needs /proc, through which it reaches paths that are too long for an address.
/// Thread: any, one at a time.
class ServiceFolder {
 public:
  /// The folder of this process's effective user comes into being, that of another must be there (ENOENT).
  static std::variant<ServiceFolder, Error> open(uid_t user);

  /// How long `connect` and `lock` wait at most.
  static constexpr std::chrono::seconds kPatience{5};

  /// A connection to who listens under that name, or an errno: ENOENT or ECONNREFUSED when nobody does, EAGAIN when so many
  /// wait there that no more are let in. With `waits` it blocks until that changes.
  std::variant<Descriptor, int> connect(const std::string& name, bool waits) const;
  /// Keeps other processes from listening anew, under any name, until this ends. Whoever holds it does not wait for others.
  std::optional<Error> lock() const;
  /// A socket that listens under that name, in place of an earlier one. To be called with the lock.
  std::variant<Descriptor, Error> listen(const std::string& name) const;
  /// Takes a name away under which nobody listens. To be called with the lock.
  void remove(const std::string& name) const;

 private:
  ServiceFolder(Descriptor folder, std::string path, uid_t user)
      : folder_(std::move(folder)), path_(std::move(path)), user_(user) {}

  Descriptor folder_;
  std::string path_;
  uid_t user_;
};

}  // namespace larkspan::platform
