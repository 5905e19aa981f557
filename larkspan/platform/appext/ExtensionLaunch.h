#pragma once

#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/process/Child.h"

namespace larkspan::platform {

/// The descriptor at which an extension finds its connection.
inline constexpr int kExtensionDescriptor = 3;
/// The variable in which an extension finds its own identifier.
inline constexpr const char* kExtensionIdentifierVariable = "LARKSPAN_EXTENSION_IDENTIFIER";

/// How the manifest's program is started with `socket`, which is borrowed, as its connection to the host. What it prints
/// goes to the log, as much of it as is reasonable.
ChildOptions extensionLaunch(const Manifest& manifest, int socket);

}  // namespace larkspan::platform
