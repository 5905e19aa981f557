#pragma once

#include "larkspan/platform/base/Slice.h"

#include <compare>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace larkspan::platform {

/// An absolute or relative URL reference as RFC 3986 defines it, kept in the spelling it came in. A value:
/// comparable by spelling, cheap to copy. Odd file names survive: the bytes of a path live in percent-encoded
/// form.
/// Thread: as std::string.
/// Limits: `kMaximumLength`. Instead of a longer one "file:" is made, which names no file (`isFileURL` is false).
class URL {
 public:
  /// Reads a URI reference; nothing when it breaks the grammar of RFC 3986, is longer than `kMaximumLength`,
  /// or when its path holds a NUL and its scheme is "file" or none, so that no file URL can come of it.
  static std::optional<URL> parse(std::string_view text);
  /// Whether `parse` would read it.
  static bool isWellFormed(std::string_view text);
  static constexpr std::string_view kFilePrefix = "file:///";
  /// Whether it is `kFilePrefix` and a plain path: nearly all that comes from other processes is.
  static bool isPlainFileURL(std::string_view text) {
    return text.starts_with(kFilePrefix) && isPlainPath(text.substr(kFilePrefix.size()));
  }
  /// Whether it consists of characters that may stand in a path, and of triplets other than that of NUL.
  static bool isPlainPath(std::string_view text);
  /// A URL whose text is known to be well-formed and is shared, not copied.
  static URL wellFormed(Slice text) { return URL(std::move(text)); }
  /// The file URL (RFC 8089) of a path of any bytes but NUL, which ends the path. A relative path is taken
  /// from the working directory, and names no file when that was removed; nor does the empty path name one
  /// (`isFileURL` is false). A directory's URL ends in "/".
  static URL file(std::string_view path, bool isDirectory = false);

  static constexpr std::size_t kMaximumLength = 64 * 1024;

  std::string_view absoluteString() const { return text_.view(); }
  std::string description() const { return std::string(text_.view()); }

  /// In lower case; empty for a relative reference.
  std::string scheme() const;
  /// User information, host and port as they stand; nothing when there is no "//".
  std::optional<std::string> authority() const;
  /// An IPv6 address keeps its brackets; empty when absent.
  std::string host() const;
  std::optional<unsigned> port() const;
  /// The path's bytes with percent-encoding undone, less trailing "/"s unless it is the root.
  std::string path() const;
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;

  /// Whether this names a file of this machine: scheme "file", no host but "localhost", an absolute path.
  bool isFileURL() const;
  /// Whether the path ends in "/".
  bool hasDirectoryPath() const;
  /// The last component of `path()`; "/" for the root, empty for an empty path.
  std::string lastPathComponent() const;
  /// This URL's path and one more component of any bytes; query and fragment are dropped.
  URL appending(std::string_view component, bool isDirectory = false) const;
  /// The URL that `reference` means when it stands in a document at this one (RFC 3986, section 5.2). Where a
  /// path came to begin with what reads as an authority or a scheme, "/." or "./" keeps them apart.
  URL resolve(const URL& reference) const;

  friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }
  friend std::strong_ordering operator<=>(const URL& a, const URL& b) {
    return a.text_.view() <=> b.text_.view();
  }

 private:
  struct Parts {
    std::string_view scheme, authority, path, query, fragment;
    bool hasAuthority = false, hasQuery = false, hasFragment = false;
  };
  explicit URL(std::string_view text) : text_(Slice::copy(text.size() <= kMaximumLength ? text : kNoFile)) {}
  explicit URL(Slice text) : text_(std::move(text)) {}
  static constexpr std::string_view kNoFile = "file:";
  static Parts split(std::string_view text);
  static std::string join(const Parts& parts);

  Slice text_;
};

/// The bytes with everything but unreserved characters and those in `kept` written as %XX.
std::string percentEncoded(std::string_view bytes, std::string_view kept = {});
/// The bytes with each %XX undone; a "%" that begins no triplet stays.
std::string percentDecoded(std::string_view text);

}  // namespace larkspan::platform
