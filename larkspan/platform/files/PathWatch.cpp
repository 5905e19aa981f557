#include "larkspan/platform/files/PathWatch.h"

#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

// The kernel gives one watch a number for each inode, however often and by whatever path it is asked for. So
// the whole set is asked for again each time, and the numbers that did not come up are what is to be
// forgotten. A watch never loses events that it was asked for before (IN_MASK_ADD): two paths may meet in one
// folder.

namespace larkspan::platform {
namespace {

constexpr uint32_t kItself = IN_MOVE_SELF | IN_DELETE_SELF | IN_ATTRIB;
constexpr uint32_t kAppearance = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t kContent = kItself | kAppearance | IN_DELETE | IN_MOVED_FROM | IN_MODIFY;
constexpr int kMaxLinks = 40;  // As the kernel (path_resolution(7)).

/// Puts the components of a path on top of those that are still to be walked, the first one topmost.
void push(std::vector<std::string>& components, std::string_view path) {
  while (!path.empty()) {
    const std::size_t slash = path.rfind('/');
    const std::string_view last = slash == path.npos ? path : path.substr(slash + 1);
    if (!last.empty() && last != ".") components.emplace_back(last);
    path = slash == path.npos ? std::string_view() : path.substr(0, slash);
  }
}

}  // namespace

PathWatch::PathWatch(std::function<void()> onChange) : onChange_(std::move(onChange)) {}

PathWatch::~PathWatch() {
  if (source_) source_->cancel();
}

void PathWatch::begin() {
  failure_ = 0;
  isBlind_ = false;
  added_.clear();
  if (!source_) {
    inotify_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify_) {
      // Paused from the first event on until everything has been looked at.
      source_ = IoSource::make(inotify_.get(), 0, [this](uint32_t) {
        source_->setEvents(0);
        onChange_();
      });
    }
    if (!source_) failure_ = errno;
    return;
  }
  // What comes in after a full queue has been read is for the next time.
  char events[16 * 1024];
  for (int i = 0; i < 128 && read(inotify_.get(), events, sizeof events) > 0; ++i) continue;
}

bool PathWatch::watch(const std::string& path, uint32_t events) {
  const int number = inotify_add_watch(inotify_.get(), path.c_str(), events | IN_DONT_FOLLOW | IN_MASK_ADD);
  if (number >= 0) added_.insert(number);
  if (number < 0 && (errno == ENOSPC || errno == ENOMEM)) failure_ = errno;
  isBlind_ |= number < 0 && errno == EACCES;
  return number >= 0;
}

void PathWatch::addContent(const std::string& path) { addComponents(path, 0, kContent); }

void PathWatch::addPlace(const std::string& path) { addComponents(path, kAppearance, 0); }

void PathWatch::addComponents(const std::string& path, uint32_t ofFolder, uint32_t ofEnd) {
  if (!source_) return;
  std::vector<std::string> components;
  push(components, path);
  std::string walked;  // Without links; empty for the root.
  for (int links = 0; !components.empty();) {
    const std::string component = std::move(components.back());
    components.pop_back();
    if (component == "..") {
      walked.erase(walked.empty() ? 0 : walked.rfind('/'));
      continue;
    }
    const std::string child = walked + '/' + component;
    if (components.empty() && ofFolder != 0) watch(walked.empty() ? "/" : walked, ofFolder);
    if (!watch(child, kItself) && errno == ENOENT) {
      watch(walked.empty() ? "/" : walked, kAppearance);
      if (!watch(child, kItself)) return;  // Not even now that its appearance would be seen.
    }
    char target[PATH_MAX];
    const ssize_t size = readlink(child.c_str(), target, sizeof target);
    if (size < 0) {
      walked = child;
      continue;
    }
    if (++links > kMaxLinks) return;
    if (target[0] == '/') walked.clear();
    push(components, std::string_view(target, static_cast<std::size_t>(size)));
  }
  if (ofEnd != 0) watch(walked.empty() ? "/" : walked, ofEnd);
}

int PathWatch::finish() {
  for (const int number : watched_) {
    if (!added_.contains(number))
      inotify_rm_watch(inotify_.get(), number);  // The kernel may have been first.
  }
  watched_ = added_;
  if (source_) source_->setEvents(EPOLLIN);
  return failure_;
}

}  // namespace larkspan::platform
