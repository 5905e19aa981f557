#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/URL.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::caches {

/// Domain of this extension's own errors; all have the code 1 and a text for people.
inline constexpr std::string_view kCachesErrorDomain = "corvane.larkspan.caches";

enum class CacheKind : uint8_t {
  application,  ///< Whatever an application keeps, be it a folder or a loose file.
  tagged,       ///< A folder that its application marked with a CACHEDIR.TAG.
  thumbnails,   ///< The desktop's shared folder of previews.
};

/// One thing directly in the cache directory.
struct CacheEntry {
  std::string name;  ///< Any bytes.
  platform::URL url;
  CacheKind kind;
  bool isFolder;
  /// Allocated bytes, for a folder those of everything in it. A file with links in two caches counts in both.
  int64_t bytes;
};

/// The user's cache directory (freedesktop.org's basedir-spec). Its entries are the
/// folders and regular files in it; links are not followed, and neither they nor what something is mounted on
/// are entries.
/// Thread:  any; all but `path` read the disk and block.
/// Failure: a directory that cannot be read has no entries.
class CacheDirectory {
 public:
  /// $XDG_CACHE_HOME if that is absolute, else .cache in $HOME or, without that, in the home folder of the
  /// password database. One that the home folder lies in is a mistake in the environment and has no entries.
  static CacheDirectory ofUser();
  explicit CacheDirectory(std::string path) : path_(std::move(path)) {}

  /// Empty when there is none.
  const std::string& path() const { return path_; }
  /// The directory itself; none if it cannot be opened.
  platform::Descriptor open() const;

  /// Walks all there is, in the order of names; `found` hears of each entry once its size is known.
  std::vector<CacheEntry> entries(const std::function<void(const CacheEntry&)>& found = {}) const;
  /// The entry that the URL, from wherever it comes, names; sized now.
  std::optional<CacheEntry> entry(const platform::URL& url) const;
  /// Takes everything out of the folder that the URL names, but the tag of a tagged one, or removes the file.
  /// Whatever is swapped for a link or a mount meanwhile stays.
  std::optional<platform::Error> empty(const platform::URL& url) const;

 private:
  // These do not size folders yet.
  std::optional<CacheEntry> look(const platform::URL& url) const;
  std::optional<CacheEntry> look(int directory, const std::string& name) const;
  static void measure(CacheEntry& entry);

  std::string path_;
};

}  // namespace larkspan::caches
