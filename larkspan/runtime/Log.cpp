#include "larkspan/runtime/Log.h"

#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/text/SizeText.h"

namespace larkspan {

const platform::SystemLog& detail::LKSLogFile() {
  static const auto* log = new platform::SystemLog("corvane.storage", "log");
  return *log;
}

void detail::log(platform::LogLevel level, std::string_view message) { LKSLogFile().write(level, message); }

std::string detail::logged(const platform::Error& error) {
  return platform::shortened(error.description(), platform::limits::kMaximumLoggedError);
}

std::optional<std::string> detail::logged(const std::optional<platform::Error>& error) {
  return error ? std::optional(logged(*error)) : std::nullopt;
}

void LKSLogDuration(const platform::FormatArgument& label, double seconds) {
  LKSLog("%@ completed in %0.2f sec", label, seconds);
}

void LKSLogSize(int64_t bytes, const platform::FormatArgument& label) {
  LKSLog("%@: %@", platform::sizeText(bytes), label);
}

}  // namespace larkspan
