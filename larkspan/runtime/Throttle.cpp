#include "larkspan/runtime/Throttle.h"

#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/log/Console.h"

namespace larkspan {
namespace {

using platform::DispatchQueue;
using platform::Timer;

constexpr auto kLeeway = std::chrono::seconds(1);

}  // namespace

std::map<std::string, std::shared_ptr<Timer>>& DispatchSourcesDictionary() {
  static auto* const sources = new std::map<std::string, std::shared_ptr<Timer>>;
  return *sources;
}

std::shared_ptr<Timer> StartedDispatchTimer(bool repeats, std::shared_ptr<DispatchQueue> queue,
                                            platform::Task handler, double interval) {
  const auto nanoseconds = platform::nanosecondsFromSeconds(interval);
  return Timer::make(std::move(queue), nanoseconds, repeats ? nanoseconds : Timer::kNever, kLeeway,
                     std::move(handler));
}

void ThrottleOnMainQueue(std::optional<std::string> key, platform::Task block, double delay) {
  if (!key) {
    platform::consoleLog("sp_throttleOnMainQueue: uuid can not be nil");
    return;
  }
  DispatchQueue::main()->async([key = std::move(*key), block = std::move(block), delay]() mutable {
    std::shared_ptr<Timer>& source = DispatchSourcesDictionary()[key];
    if (source) source->cancel();
    auto handler = [key, block = std::move(block)]() mutable {
      block();
      DispatchSourcesDictionary().erase(key);
    };
    source = StartedDispatchTimer(false, DispatchQueue::main(), std::move(handler), delay);
  });
}

}  // namespace larkspan
