#pragma once

#include "larkspan/host/LKSOpaqueExtension.h"

#include <memory>
#include <string_view>

/// How the program ends. However it does, no extension that it started outlives it.
namespace larkspan::cli {

/// Takes SIGINT, SIGTERM and, unless it is ignored, SIGHUP from the threads to come: to be called before
/// there are any. From then on the first of these signals ends the program within a moment, whatever its
/// threads wait for, with status 128 + signal; the second ends it on the spot.
void watchSignals();

/// Names an extension whose process is to end with the program. Any thread.
void endWithProgram(std::shared_ptr<LKSOpaqueExtension> extension);

/// Ends the program; extensions get a moment to leave by themselves. Any thread.
[[noreturn]] void finish(int status);
/// Says "larkspan: MESSAGE" on standard error and ends the program. The message may hold anything.
[[noreturn]] void fail(std::string_view message, int status = 1);
/// Just says it.
void complain(std::string_view message);

}  // namespace larkspan::cli
