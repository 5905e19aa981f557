#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/URL.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace larkspan::platform {

/// What is known of the entry that a file URL names. Facts are those of the entry itself: a symbolic link is
/// not followed, its size and dates are the link's own. What the file system cannot tell is absent.
struct ResourceValues {
  /// What people call it, well-formed UTF-8: the name in a desktop entry ("*.desktop"), in the locale that the
  /// program uses for messages; else the last component of the path, "/" for the root.
  std::string localizedName;
  /// Bytes of disk the entry itself takes (512-byte blocks); a folder's content is not part of it.
  std::optional<int64_t> totalAllocatedSize;
  /// Absent where the file system records no birth time.
  std::optional<Date> creationDate;
  std::optional<Date> contentModificationDate;
  bool isDirectory = false;
  /// A regular file that can be launched: a desktop entry of an application, or one with an execute
  /// permission.
  bool isApplication = false;
};

/// Answers for resource values, from one statx(2) each; a desktop entry is read, too. A test may install another
/// with `Installed`.
/// Thread:  any.
/// Failure: the error of the system call; EINVAL for what is not a file URL.
class FileFacts {
 public:
  virtual ~FileFacts() = default;
  /// Fills `values`, which are left as they are on an error.
  virtual std::optional<Error> read(const URL& url, ResourceValues& values) const;

  static const FileFacts& current() { return *slot().load(); }
  static std::atomic<FileFacts*>& slot();
};

}  // namespace larkspan::platform
