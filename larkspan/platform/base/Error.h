#pragma once

#include "larkspan/platform/base/Dictionary.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// The standard keys of an error's user information; each value is a string.
inline constexpr Key kLocalizedDescriptionKey = "LocalizedDescription";
inline constexpr Key kLocalizedFailureReasonKey = "LocalizedFailureReason";
inline constexpr Key kLocalizedRecoverySuggestionKey = "LocalizedRecoverySuggestion";
inline constexpr Key kHelpAnchorKey = "HelpAnchor";

/// Domain of errors whose code is an errno.
inline constexpr std::string_view kPosixErrorDomain = "POSIX";

/// Why something failed: a domain, a code in it and optional further information. A value, cheap to copy.
class Error {
 public:
  Error(std::string_view domain, int64_t code, Dictionary userInfo = {});
  /// With the description under `kLocalizedDescriptionKey`.
  Error(std::string_view domain, int64_t code, std::string_view localizedDescription);
  /// The error of a system call, described as "CONTEXT: strerror text".
  static Error posix(int errorNumber, std::string_view context);

  const std::string& domain() const { return content_->domain; }
  int64_t code() const { return content_->code; }
  const Dictionary& userInfo() const { return content_->userInfo; }

  /// Never empty: a text made of domain and code where the error carries none.
  std::string localizedDescription() const;
  std::optional<std::string> localizedFailureReason() const;
  std::optional<std::string> localizedRecoverySuggestion() const;
  std::optional<std::string> helpAnchor() const;
  /// "Error Domain=DOMAIN Code=CODE "DESCRIPTION"".
  std::string description() const;

  friend bool operator==(const Error& a, const Error& b);

 private:
  struct Content {
    std::string domain;
    int64_t code;
    Dictionary userInfo;
  };
  std::shared_ptr<const Content> content_;
};

}  // namespace larkspan::platform
