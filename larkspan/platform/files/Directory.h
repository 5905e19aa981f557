#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/Descriptor.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>

namespace larkspan::platform {

/// How a folder is opened beneath another.
enum class FolderOpening : uint8_t {
  automatic,   ///< openat2(2), which refuses links and mounts itself; as `components` where the kernel lacks
               ///< it.
  components,  ///< openat(2) without following, then a look at the mount of what was opened.
};

/// The facts of one entry of a folder, neither following a link nor waking an automount; of the folder itself
/// when `name` is empty. Returns 0 or an errno.
int factsAt(int folder, const char* name, struct statx& facts);
/// Tells mounts apart, of what `factsAt` found: the mount's id, or the device where not even /proc tells ids.
uint64_t mountOf(const struct statx& facts);
/// The id of the mount that an open file lies on, as /proc tells it (proc_pid_fdinfo(5)): for kernels before
/// 5.8, whose statx(2) does not; it becomes 0 where there is no /proc. Returns 0, or the errno of a want of
/// descriptors or memory.
int mountFromProc(int file, uint64_t& mount);

inline Date dateOf(const struct statx_timestamp& time) { return {time.tv_sec, time.tv_nsec}; }

/// Opens the folder `name`, one component, of `parent` for reading. Returns 0 or an errno: ENOTDIR or ELOOP
/// for what is no folder, EXDEV for one that is not on `mount`.
int openFolderAt(int parent, const char* name, uint64_t mount, FolderOpening opening, Descriptor& result);

/// As `openFolderAt`, but tells the folder's facts, too, and leaves the place of an automount one.
int enterFolderAt(int parent, const char* name, uint64_t mount, FolderOpening opening, Descriptor& result,
                  struct statx& facts);

/// Whether the folder's file system is tmpfs, ext2 to ext4, XFS or Btrfs, where a folder may be removed while it is
/// open, and `DirectoryReader::tellEnd` is right.
bool isInWellKnownFileSystem(int folder);

/// Reads the entries of folders, with one buffer for all of them.
class DirectoryReader {
 public:
  /// Reads on from the folder's position: entries as getdents64(2) gives them, valid until the next call;
  /// none at the end or after an error, which is an errno.
  std::string_view next(int folder, int& error) {
    if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferSize);
    const ssize_t size = ::getdents64(folder, buffer_.get(), kBufferSize);
    error = size < 0 ? errno : 0;
    return {buffer_.get(), size < 0 ? 0 : static_cast<std::size_t>(size)};
  }

  /// Calls `entry(name, type)` for each of the entries but "." and ".."; `type` is a DT_ constant, DT_UNKNOWN
  /// where the file system does not say. Ends early, and answers false, when `entry` does.
  template <typename F>
  static bool forEach(std::string_view entries, F&& entry) {
    for (std::size_t at = 0; at < entries.size();) {
      const auto* record = reinterpret_cast<const dirent64*>(entries.data() + at);
      at += record->d_reclen;
      const char* name = record->d_name;
      const bool isDots = name[0] == '.' && (!name[1] || (name[1] == '.' && !name[2]));
      if (!isDots && !entry(name, record->d_type)) return false;
    }
    return true;
  }

  /// Whether nothing follows these entries, of a folder in a well-known file system: the position behind the
  /// last of them is then one that stands for the end of any folder. Where there is none, as in XFS or an older
  /// tmpfs, this is never so. Room left in the buffer would tell less: a signal or a failing disk leaves some, too.
  static bool tellEnd(std::string_view entries) {
    int64_t position = 0;
    for (std::size_t at = 0; at < entries.size();) {
      const auto* record = reinterpret_cast<const dirent64*>(entries.data() + at);
      at += record->d_reclen;
      position = record->d_off;
    }
    return position == INT32_MAX || position == INT64_MAX;
  }

  /// `forEach` for all that follows. Returns 0 or the errno of getdents64(2).
  template <typename F>
  int read(int folder, F&& entry) {
    int error = 0;
    for (;;) {
      const std::string_view entries = next(folder, error);
      if (entries.empty() || !forEach(entries, entry)) return error;
    }
  }

 private:
  static constexpr std::size_t kBufferSize = 32 * 1024;
  std::unique_ptr<char[]> buffer_;
};

}  // namespace larkspan::platform
