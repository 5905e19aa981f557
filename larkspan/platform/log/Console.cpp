#include "larkspan/platform/log/Console.h"

#include "larkspan/platform/log/LogSink.h"

namespace larkspan::platform {

void consoleLog(std::string_view message) {
  LogSink::current(LogChannel::console)->write({LogChannel::console, LogLevel::standard, {}, {}, message});
}

}  // namespace larkspan::platform
