#pragma once

#include "larkspan/platform/archive/CommonPrefix.h"
#include "larkspan/platform/base/URL.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// Judges URLs that come one after the other. A list of files mostly has them in one folder: what a URL shares with the
/// one before is not looked at again, as long as both are of the form that is judged piece by piece.
/// Owner:  the prefix, and the text of the last URL, must live as long as another one comes.
class URLCheck {
 public:
  URLCheck() = default;
  /// For URLs that all begin with the prefix, which what is judged then lacks; `rests` is all of that, one behind the other.
  URLCheck(std::string_view prefix, std::string_view rests)
      : prefix_(prefix),
        isFilePrefix_(prefix.starts_with(URL::kFilePrefix) && URL::isWellFormed(prefix)),
        arePlain_(isFilePrefix_ && URL::isPlainPath(rests)),
        whole_(prefix) {}

  /// Answers as `URL::isWellFormed` of the prefix and the text.
  bool isWellFormed(std::string_view text) {
    if (!prefix_.empty()) return isWellFormedRest(text);
    std::size_t shared = commonPrefix(text, last_);
    // A triplet may begin in what both share and end in different ways.
    if (const std::size_t begun = text.substr(0, shared).find('%', std::max<std::size_t>(shared, 2) - 2);
        begun < shared)
      shared = begun;
    const bool isPlainFile = shared >= URL::kFilePrefix.size() && text.size() <= URL::kMaximumLength &&
                             URL::isPlainPath(text.substr(shared));
    if (!isPlainFile && !URL::isWellFormed(text)) return false;
    last_ = isPlainFile || URL::isPlainFileURL(text) ? text : std::string_view();
    return true;
  }

 private:
  bool isWellFormedRest(std::string_view text) {
    if (prefix_.size() + text.size() > URL::kMaximumLength) return false;
    // Together they are plain also where a triplet begins in one and ends in the next.
    const std::string_view end = text.substr(std::max<std::size_t>(text.size(), 2) - 2);
    if (arePlain_ ? end.find('%') == end.npos : isFilePrefix_ && URL::isPlainPath(text)) return true;
    whole_.resize(prefix_.size());
    return URL::isWellFormed(whole_.append(text));
  }

  std::string_view prefix_;
  /// A plain path behind it makes no look at the prefix necessary: a path, a query and a fragment all may hold it.
  bool isFilePrefix_ = false;
  /// All that comes behind it, taken as one text, is a plain path, too.
  bool arePlain_ = false;
  /// The prefix and the text judged last.
  std::string whole_;
  /// The plain URL of a file that came last.
  std::string_view last_;
};

}  // namespace larkspan::platform
