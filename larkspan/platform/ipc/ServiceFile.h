#pragma once

#include "larkspan/platform/base/Error.h"

#include <string>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// The program and the arguments that serve under a name, or why there are none. They stand in a key file `NAME.service` in
/// `larkspan/services` of the data folders, the first of which wins that has a sound one:
///
///     [Service]
///     Identifier=NAME
///     Exec=...           as in an extension's manifest; see ExecLine.h
///     Hidden=true        switches the service off that a later folder has
///
/// File and folder must be trustworthy; see TrustedFile.h.
/// Thread: any; reads files.
std::variant<std::vector<std::string>, Error> serviceProgram(const std::string& name);

}  // namespace larkspan::platform
