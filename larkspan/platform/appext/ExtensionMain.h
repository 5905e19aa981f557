#pragma once

#include "larkspan/platform/appext/ExtensionContext.h"

#include <functional>
#include <memory>
#include <string>

namespace larkspan::platform {

/// The identifier of the extension that this process is, as its host told it; the program's name when nobody
/// did.
std::string mainBundleIdentifier();

/// Serves the host at descriptor 3 until it goes away, and returns the program's exit status: 0, or 2 with a
/// line on standard error when there is no host. To be called on the initial thread, whose main queue runs
/// meanwhile. `makeContext` is called on the delivery queue for each request that begins; the context is held
/// until it ends. Takes the messages and the character type of the environment's locale, and ignores SIGPIPE.
int runExtension(
    std::function<std::shared_ptr<ExtensionContext>(UUID, std::shared_ptr<Connection>)> makeContext);

}  // namespace larkspan::platform
