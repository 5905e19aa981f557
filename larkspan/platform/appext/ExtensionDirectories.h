#pragma once

#include <string>
#include <vector>

namespace larkspan::platform {

/// The folders where extension manifests are looked for, the first with precedence: the entries of the colon
/// list LARKSPAN_EXTENSION_PATH, then `larkspan/extensions` in XDG_DATA_HOME and in each of XDG_DATA_DIRS,
/// with the defaults of freedesktop.org's basedir-spec. Absolute, each once, whether
/// there or not; relative entries are passed over. A process with more rights than its user
/// (secure_getenv(3)) sees the defaults.
/// Thread: any, as long as none changes the environment.
std::vector<std::string> extensionDirectories();

}  // namespace larkspan::platform
