#include "larkspan/platform/ipc/ServiceFolder.h"

#include "larkspan/platform/process/Identity.h"
#include "larkspan/platform/process/TrustedFile.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

constexpr const char* kBelow = "larkspan";
/// Under which a socket is made before it takes its place. No service is called so.
constexpr const char* kNew = ".new";
/// Sticky, which the basedir-spec asks of files that must not be cleaned away by their age.
constexpr mode_t kMode = S_ISVTX | S_IRUSR | S_IWUSR;
constexpr std::chrono::milliseconds kLockInterval{5};

/// The address of a file that a descriptor leads to, however long its path is.
sockaddr_un addressAt(int descriptor, const char* below) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor) + below;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

Error refused(const std::string& path, int errorNumber, std::string_view reason) {
  return Error(kPosixErrorDomain, errorNumber, path + ": " + std::string(reason));
}

/// Opens a folder that belongs to the user. `forbidden` are the permissions that it must not give.
std::variant<Descriptor, Error> openOwned(int parent, const char* name, const std::string& path, uid_t user,
                                          mode_t forbidden) {
  Descriptor folder(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder || ::fstat(folder.get(), &status) != 0) return Error::posix(errno, path);
  if (status.st_uid != user) return refused(path, EPERM, "belongs to user " + std::to_string(status.st_uid));
  if (status.st_mode & forbidden) return refused(path, EPERM, "is open to others");
  return folder;
}

/// What the folder lies in, and its path.
std::variant<std::pair<Descriptor, std::string>, Error> openRuntimeFolder(uid_t user, bool isOwn) {
  const std::string number = std::to_string(user);
  const char* const variable = isOwn ? ::secure_getenv("XDG_RUNTIME_DIR") : nullptr;
  for (const std::string& path : {std::string(variable ? variable : ""), "/run/user/" + number}) {
    if (!path.starts_with('/')) continue;
    Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!folder && isShortage(errno)) return Error::posix(errno, path);
    if (folder && ::fstat(folder.get(), &status) == 0 && status.st_uid == user &&
        !(status.st_mode & (S_IWGRP | S_IWOTH)))
      return std::pair(std::move(folder), path);
  }
  // Anybody may have made that one.
  const std::string path = "/tmp/larkspan-" + number;
  if (isOwn && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return Error::posix(errno, path);
  auto folder = openOwned(AT_FDCWD, path.c_str(), path, user, S_IRWXG | S_IRWXO);
  if (auto* error = std::get_if<Error>(&folder)) return std::move(*error);
  return std::pair(std::get<Descriptor>(std::move(folder)), path);
}

}  // namespace

std::variant<ServiceFolder, Error> ServiceFolder::open(uid_t user) {
  const bool isOwn = user == Identity::current().effectiveUser;
  auto runtime = openRuntimeFolder(user, isOwn);
  if (auto* error = std::get_if<Error>(&runtime)) return std::move(*error);
  const auto& [parent, parentPath] = std::get<0>(runtime);
  std::string path = parentPath + '/' + kBelow;
  if (isOwn && ::mkdirat(parent.get(), kBelow, 0700) != 0 && errno != EEXIST)
    return Error::posix(errno, path);
  auto folder = openOwned(parent.get(), kBelow, path, user, S_IWGRP | S_IWOTH);
  if (auto* error = std::get_if<Error>(&folder)) return std::move(*error);
  return ServiceFolder(std::get<Descriptor>(std::move(folder)), std::move(path), user);
}

std::variant<Descriptor, int> ServiceFolder::connect(const std::string& name, bool waits) const {
  // Opened first, as connect(2) would follow a link.
  const Descriptor file(::openat(folder_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISSOCK(status.st_mode)) return ENOTSOCK;
  if (status.st_uid != user_ && status.st_uid != 0) return EPERM;
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  // connect(2) waits as long as a write would.
  timeval patience{waits ? kPatience.count() : 0, waits ? 0 : 1};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const sockaddr_un address = addressAt(file.get(), "");
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  patience = {};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  return socket;
}

std::optional<Error> ServiceFolder::lock() const {
  for (auto left = kPatience / kLockInterval; ::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0; --left) {
    if (errno != EWOULDBLOCK && errno != EINTR) return Error::posix(errno, path_);
    if (left == 0) return refused(path_, EAGAIN, "is locked by another process that starts a service");
    std::this_thread::sleep_for(kLockInterval);
  }
  return std::nullopt;
}

std::variant<Descriptor, Error> ServiceFolder::listen(const std::string& name) const {
  struct stat status;
  if (::fstatat(folder_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISSOCK(status.st_mode))
    return refused(path_ + '/' + name, EEXIST, "is no socket");
  ::unlinkat(folder_.get(), kNew, 0);
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string below = std::string("/") + kNew;
  const sockaddr_un address = addressAt(folder_.get(), below.c_str());
  // It takes its place only when it listens, so that nobody finds it earlier.
  if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::fchmodat(folder_.get(), kNew, kMode, 0) != 0 || ::listen(socket.get(), SOMAXCONN) != 0 ||
      ::renameat(folder_.get(), kNew, folder_.get(), name.c_str()) != 0)
    return Error::posix(errno, path_ + '/' + name);
  return socket;
}

void ServiceFolder::remove(const std::string& name) const { ::unlinkat(folder_.get(), name.c_str(), 0); }

}  // namespace larkspan::platform
