#pragma once

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/log/SystemLog.h"

#include <cstdint>
#include <string_view>

/// The library's diagnostics: one channel of the system log, always written whole. The message is formatted
/// even when its level is disabled: do not log in tight loops.
namespace larkspan {

namespace detail {
/// The log handle for subsystem "corvane.storage", category "log"; made on first use and kept.
const platform::SystemLog& LKSLogFile();
void log(platform::LogLevel level, std::string_view message);
}  // namespace detail

/// Logs the formatted message (see platform/base/Format.h) at the default level. Any thread.
template <typename... Arguments>
void LKSLog(std::string_view format, const Arguments&... arguments) {
  detail::log(platform::LogLevel::standard, platform::format(format, arguments...));
}

/// The same at the fault level.
template <typename... Arguments>
void LKSLogFault(std::string_view format, const Arguments&... arguments) {
  detail::log(platform::LogLevel::fault, platform::format(format, arguments...));
}

/// Logs "LABEL completed in S.SS sec".
void LKSLogDuration(const platform::FormatArgument& label, double seconds);
/// Logs "SIZE: LABEL" with the bytes as a size text.
void LKSLogSize(int64_t bytes, const platform::FormatArgument& label);

}  // namespace larkspan
