#pragma once

#include "larkspan/platform/base/URL.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace larkspan::platform {

/// Judges URLs that come one after the other. A list of files mostly has them in one folder: what a URL shares with the
/// one before is not looked at again, as long as both are of the form that is judged by its single characters.
/// Owner:  the text of the last URL must live as long as another one comes.
class URLCheck {
 public:
  /// Answers as `URL::isWellFormed`.
  bool isWellFormed(std::string_view text) {
    const std::size_t shared = sharedPrefix(text, last_);
    const bool isPlainFile = shared >= URL::kFilePrefix.size() && text.size() <= URL::kMaximumLength &&
                             URL::isPlainPath(text.substr(shared));
    if (!isPlainFile && !URL::isWellFormed(text)) return false;
    last_ = isPlainFile || URL::isPlainFileURL(text) ? text : std::string_view();
    return true;
  }

 private:
  /// How many bytes both begin with, to the word.
  static std::size_t sharedPrefix(std::string_view a, std::string_view b) {
    const std::size_t size = std::min(a.size(), b.size());
    std::size_t at = 0;
    uint64_t x, y;
    for (; at + sizeof x <= size; at += sizeof x) {
      std::memcpy(&x, a.data() + at, sizeof x);
      std::memcpy(&y, b.data() + at, sizeof y);
      if (x != y) break;
    }
    return at;
  }

  /// The plain URL of a file that came last.
  std::string_view last_;
};

}  // namespace larkspan::platform
