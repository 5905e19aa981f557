#pragma once

#include "larkspan/platform/log/SystemLog.h"

namespace larkspan::platform {

/// Where breaches of the protocol are said: subsystem "corvane.storage", category "transport".
inline const SystemLog& transportLog() {
  static const auto* const log = new SystemLog("corvane.storage", "transport");
  return *log;
}

}  // namespace larkspan::platform
