#pragma once

#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Error.h"

#include <optional>
#include <string>
#include <string_view>

namespace larkspan {

/// Facts about this machine, each asked for once per process and kept. Any thread.
/// Whether the system is a build before its release.
bool LKSStorageIsInternalInstall();
/// The version of the operating system, or nothing.
std::optional<std::string> LKSStorageProductVersion();
/// The model of the hardware, or nothing.
std::optional<std::string> LKSStorageProductType();

/// Whether the path begins with "/System/Volumes/Data": a test of the text alone, which on Linux no mount
/// path passes.
bool LKSStorageIsUserVolumeMountPath(std::string_view path);

/// The error's texts for people under their standard keys (platform/base/Error.h), for where only plain
/// dictionaries travel. Domain and code are left out on purpose; the description is always there.
platform::Dictionary LKSConvertNSErrorToDictionary(const platform::Error& error);

}  // namespace larkspan
