#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/log/SystemLog.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The library's diagnostics: one channel of the system log, always written whole. The message is formatted
/// even when its level is disabled: do not log in tight loops.
/// Limits: of an error, which may be a peer's, a message holds no more than `limits::kMaximumLoggedError` bytes.
namespace larkspan {

namespace detail {
/// The log handle for subsystem "corvane.storage", category "log"; made on first use and kept.
const platform::SystemLog& LKSLogFile();
void log(platform::LogLevel level, std::string_view message);
/// What is logged of an argument.
template <typename T>
const T& logged(const T& argument) {
  return argument;
}
std::string logged(const platform::Error& error);
std::optional<std::string> logged(const std::optional<platform::Error>& error);
}  // namespace detail

/// Logs the formatted message (see platform/base/Format.h) at the default level. Any thread.
template <typename... Arguments>
void LKSLog(std::string_view format, const Arguments&... arguments) {
  detail::log(platform::LogLevel::standard, platform::format(format, detail::logged(arguments)...));
}

/// The same at the fault level.
template <typename... Arguments>
void LKSLogFault(std::string_view format, const Arguments&... arguments) {
  detail::log(platform::LogLevel::fault, platform::format(format, detail::logged(arguments)...));
}

/// Logs "LABEL completed in S.SS sec".
void LKSLogDuration(const platform::FormatArgument& label, double seconds);
/// Logs "SIZE: LABEL" with the bytes as a size text.
void LKSLogSize(int64_t bytes, const platform::FormatArgument& label);

}  // namespace larkspan
