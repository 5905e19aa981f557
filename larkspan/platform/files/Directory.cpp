#include "larkspan/platform/files/Directory.h"

#include <atomic>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// Whether openat2(2) is there: kernels before 5.6 lack it, and some sandboxes refuse it.
std::atomic<bool> hasOpenat2 = true;

int openBeneath(int parent, const char* name) {
  struct open_how how = {};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  return static_cast<int>(::syscall(SYS_openat2, parent, name, &how, sizeof how));
}

}  // namespace

int factsAt(int folder, const char* name, struct statx& facts) {
  constexpr unsigned kMask = STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID;
  constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
  return ::statx(folder, name, *name ? kFlags : kFlags | AT_EMPTY_PATH, kMask, &facts) == 0 ? 0 : errno;
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

}  // namespace larkspan::platform
