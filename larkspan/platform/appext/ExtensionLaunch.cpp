#include "larkspan/platform/appext/ExtensionLaunch.h"

#include "larkspan/platform/appext/ExtensionLog.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/log/LogBudget.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <signal.h>

namespace larkspan::platform {

namespace {

/// On the input/output thread.
class PrintLog {
 public:
  explicit PrintLog(std::string identifier) : identifier_(std::move(identifier)) {}

  void take(std::string_view line) {
    if (budget_.allows(line.size()))
      extensionLog().write(LogLevel::standard, identifier_ + ": " + std::string(line));
  }

 private:
  const std::string identifier_;
  LogBudget budget_{[this](std::size_t lines) {
    extensionLog().write(LogLevel::standard,
                         format("%@ prints too much: %zu lines were dropped", identifier_, lines));
  }};
};

}  // namespace

ChildOptions extensionLaunch(const Manifest& manifest, int socket) {
  ChildOptions options;
  options.arguments = manifest.exec;
  options.environment = environmentWith({{kExtensionIdentifierVariable, manifest.identifier}});
  options.workingFolder = "/";
  options.descriptors = {{kExtensionDescriptor, socket}};
  // An extension leaves at end of file; a stopped or hung one goes with its host all the same.
  options.parentDeathSignal = SIGKILL;
  options.standardErrorLine = [log = std::make_shared<PrintLog>(manifest.identifier)](std::string_view line) {
    log->take(line);
  };
  return options;
}

}  // namespace larkspan::platform
