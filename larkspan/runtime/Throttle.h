#pragma once

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/Timer.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace larkspan {

/// The timers of `ThrottleOnMainQueue` that wait, by key. Created on first use, lives as long as the process.
/// Thread: only to be read and written on the main queue.
std::map<std::string, std::shared_ptr<platform::Timer>>& DispatchSourcesDictionary();

/// Makes a timer that runs `handler` on `queue` after `interval` seconds, and then at every interval if it
/// `repeats`. It may be up to a second late in order to join another timer. The caller owns it: cancelling or
/// dropping it stops it. Seconds are truncated to nanoseconds.
/// Thread: any.
std::shared_ptr<platform::Timer> StartedDispatchTimer(bool repeats,
                                                      std::shared_ptr<platform::DispatchQueue> queue,
                                                      platform::Task handler, double interval);

/// Runs `block` on the main queue once no other call with the same key has arrived there for `delay` seconds
/// (and up to a second more, as above): of a burst only the last block runs; the others are destroyed.
/// Without a key the block is dropped and a line says so in the console log. Returns at once.
/// Thread: any. A program that never runs its main queue never runs the block.
void ThrottleOnMainQueue(std::optional<std::string> key, platform::Task block, double delay);

}  // namespace larkspan
