#pragma once

#include "larkspan/platform/log/SystemLog.h"

namespace larkspan::platform {

/// Where what happens to extensions is said: subsystem "corvane.storage", category "extensions".
inline const SystemLog& extensionLog() {
  static const auto* const log = new SystemLog("corvane.storage", "extensions");
  return *log;
}

}  // namespace larkspan::platform
