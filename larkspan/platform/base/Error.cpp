#include "larkspan/platform/base/Error.h"

#include "larkspan/platform/base/Value.h"

#include <cstring>

namespace larkspan::platform {

Error::Error(std::string_view domain, int64_t code, Dictionary userInfo)
    : content_(std::make_shared<const Content>(Content{std::string(domain), code, std::move(userInfo)})) {}

Error::Error(std::string_view domain, int64_t code, std::string_view localizedDescription)
    : Error(domain, code, Dictionary{{kLocalizedDescriptionKey, Value(localizedDescription)}}) {}

Error Error::posix(int errorNumber, std::string_view context) {
  char buffer[128];
  // The GNU variant of strerror_r(3) returns the text, which is not always in the buffer.
  const char* text = ::strerror_r(errorNumber, buffer, sizeof buffer);
  return Error(kPosixErrorDomain, errorNumber, std::string_view(std::string(context) + ": " + text));
}

std::string Error::localizedDescription() const {
  auto text = userInfo().get(kLocalizedDescriptionKey).string();
  if (text && !text->empty()) return *text;
  return "The operation could not be completed (" + domain() + " error " + std::to_string(code()) + ").";
}

std::optional<std::string> Error::localizedFailureReason() const {
  return userInfo().get(kLocalizedFailureReasonKey).string();
}
std::optional<std::string> Error::localizedRecoverySuggestion() const {
  return userInfo().get(kLocalizedRecoverySuggestionKey).string();
}
std::optional<std::string> Error::helpAnchor() const { return userInfo().get(kHelpAnchorKey).string(); }

std::string Error::description() const {
  return "Error Domain=" + domain() + " Code=" + std::to_string(code()) + " \"" + localizedDescription() +
         "\"";
}

bool operator==(const Error& a, const Error& b) {
  return a.content_ == b.content_ ||
         (a.domain() == b.domain() && a.code() == b.code() && a.userInfo() == b.userInfo());
}

}  // namespace larkspan::platform
