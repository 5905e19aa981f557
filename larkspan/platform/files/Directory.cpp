#include "larkspan/platform/files/Directory.h"

#include <atomic>
#include <charconv>
#include <string>

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// Whether openat2(2) is there: kernels before 5.6 lack it, and some sandboxes refuse it.
std::atomic<bool> hasOpenat2 = true;
/// Whether it knows RESOLVE_CACHED: since 5.12.
std::atomic<bool> hasCachedOpening = true;

int openBeneath(int parent, const char* name, unsigned further = 0) {
  struct open_how how = {};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV | further;
  return static_cast<int>(::syscall(SYS_openat2, parent, name, &how, sizeof how));
}

/// Opened so, the place of an automount stays one.
int addMount(int folder, const char* name, struct statx& facts) {
  const Descriptor entry(*name ? ::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1);
  if (*name && !entry) return errno;
  uint64_t mount;
  const int error = mountFromProc(*name ? entry.get() : folder, mount);
  facts.stx_mnt_id = mount;
  if (mount != 0) facts.stx_mask |= STATX_MNT_ID;
  return error;
}

}  // namespace

int factsAt(int folder, const char* name, struct statx& facts) {
  constexpr unsigned kMask = STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID;
  constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
  if (::statx(folder, name, *name ? kFlags : kFlags | AT_EMPTY_PATH, kMask, &facts) != 0) return errno;
  return facts.stx_mask & STATX_MNT_ID ? 0 : addMount(folder, name, facts);
}

int mountFromProc(int file, uint64_t& mount) {
  mount = 0;
  const std::string path = "/proc/self/fdinfo/" + std::to_string(file);
  const Descriptor info(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!info) return errno == EMFILE || errno == ENFILE || errno == ENOMEM ? errno : 0;
  char text[512];
  const ssize_t size = ::read(info.get(), text, sizeof text);
  const std::string_view lines(text, size < 0 ? 0 : static_cast<std::size_t>(size));
  constexpr std::string_view kKey = "\nmnt_id:\t";
  const std::size_t found = lines.find(kKey);
  if (found != lines.npos)
    std::from_chars(lines.data() + found + kKey.size(), lines.data() + lines.size(), mount);
  return 0;
}

uint64_t mountOf(const struct statx& facts) {
  if (facts.stx_mask & STATX_MNT_ID) return facts.stx_mnt_id;
  return ::makedev(facts.stx_dev_major, facts.stx_dev_minor);
}

int openFolderAt(int parent, const char* name, uint64_t mount, FolderOpening opening, Descriptor& result) {
  if (opening == FolderOpening::automatic && hasOpenat2.load(std::memory_order_relaxed)) {
    result = Descriptor(openBeneath(parent, name));
    if (result) return 0;
    if (errno != ENOSYS && errno != EPERM) return errno;
    if (errno == ENOSYS) hasOpenat2.store(false, std::memory_order_relaxed);
  }
  result = Descriptor(::openat(parent, name, kOpenFlags));
  if (!result) return errno;
  struct statx facts;
  int error = factsAt(result.get(), "", facts);
  if (!error && mountOf(facts) != mount) error = EXDEV;
  if (error) result.reset();
  return error;
}

int enterFolderAt(int parent, const char* name, uint64_t mount, FolderOpening opening, Descriptor& result,
                  struct statx& facts) {
  // What takes no more than a look into the kernel's cache wakes no automount, and a look at what is open already
  // is less work than one by name.
  if (opening == FolderOpening::automatic && hasCachedOpening.load(std::memory_order_relaxed)) {
    result = Descriptor(openBeneath(parent, name, RESOLVE_CACHED));
    if (result) return factsAt(result.get(), "", facts);
    if (errno == EINVAL || errno == ENOSYS || errno == EPERM)
      hasCachedOpening.store(false, std::memory_order_relaxed);
  }
  // Before opening, because opening the place of an automount would mount it.
  if (const int error = factsAt(parent, name, facts)) return error;
  if (mountOf(facts) != mount) return EXDEV;
  if (!S_ISDIR(facts.stx_mode)) return ENOTDIR;
  return openFolderAt(parent, name, mount, opening, result);
}

bool isInWellKnownFileSystem(int folder) {
  struct statfs facts;
  if (::fstatfs(folder, &facts) != 0) return false;
  const auto type = static_cast<uint32_t>(facts.f_type);
  return type == TMPFS_MAGIC || type == EXT4_SUPER_MAGIC || type == XFS_SUPER_MAGIC ||
         type == BTRFS_SUPER_MAGIC;
}

}  // namespace larkspan::platform
