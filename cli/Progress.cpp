#include "cli/Progress.h"

#include "cli/Output.h"
#include "cli/Sum.h"
#include "cli/Text.h"
#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/text/SizeText.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace larkspan::cli {

namespace {

constexpr std::chrono::milliseconds kRedrawInterval{100};
constexpr std::string_view kEraseLine = "\r\x1b[K";

/// Held while the line is written, which a terminal that is stopped may make long.
std::timed_mutex drawing;
bool shown = false;
bool ended = false;

void writeLine(std::string_view text) {
  [[maybe_unused]] const ssize_t count = write(STDERR_FILENO, text.data(), text.size());
}

/// With `drawing` held.
void eraseShown() {
  if (std::exchange(shown, false)) writeLine(kEraseLine);
}

struct Found {
  std::mutex mutex;
  Sum sum;
  bool drawing = false;  // A redraw is on its way.
};

}  // namespace

Progress::Progress() {
  if (!canShow()) return;
  const auto found = std::make_shared<Found>();
  token_ = platform::NotificationCenter::defaultCenter().addObserver(
      std::string(std::string_view(LKSOpaqueExtensionResourceEnumerationProgressNotification)), nullptr,
      [found](const platform::Notification& notification) {
        const Items items = itemsFromValue(notification.userInfo.get(LKSOpaqueExtensionAddedResourcesKey));
        const std::lock_guard lock(found->mutex);
        for (const MessageItem& item : items) found->sum.add(item.lks_size());
        if (std::exchange(found->drawing, true)) return;
        platform::DispatchQueue::main()->after(kRedrawInterval, [weak = std::weak_ptr(found)] {
          const auto current = weak.lock();
          if (!current) return;
          const std::lock_guard again(current->mutex);
          current->drawing = false;
          show("… " + std::to_string(current->sum.count) + " items, " +
               platform::sizeText(current->sum.bytes));
        });
      });
}

bool Progress::canShow() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDERR_FILENO) && terminal && std::string_view(terminal) != "dumb";
}

void Progress::show(std::string_view text) {
  const std::lock_guard lock(drawing);
  if (ended) return;
  shown = true;
  writeLine(std::string(kEraseLine) + cutToWidth(text, terminalWidth(STDERR_FILENO)));
}

void Progress::erase() {
  const std::lock_guard lock(drawing);
  eraseShown();
}

void Progress::end() {
  // By the clock that the thread sanitizer can follow.
  const std::unique_lock lock(drawing, std::chrono::system_clock::now() + kRedrawInterval);
  if (!lock) return;
  ended = true;
  eraseShown();
}

}  // namespace larkspan::cli
