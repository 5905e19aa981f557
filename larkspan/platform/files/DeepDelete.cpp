#include "larkspan/platform/files/DeepDelete.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/files/DirectoryStack.h"
#include "larkspan/platform/files/WalkCrew.h"

#include <algorithm>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

/// How often one folder is read again because something was left in it after all was removed: entries that
/// appear meanwhile, or that the file system skips when others are removed between two reads.
constexpr unsigned kMaximumPasses = 64;

/// What is known of the folder of a level.
struct State {
  bool failed = false;   // Something beneath could not go, so the folder cannot.
  bool changed = false;  // Something in it went or moved away in this pass.
  unsigned pass = 0;
};

/// What parts that were given something of one folder tell the one that gave it.
struct Findings : WalkCrew::Awaited {
  std::atomic<bool> failed = false, changed = false;
};

/// What the parts of the deletion of one batch have in common.
class Deletion {
 public:
  explicit Deletion(const DeepDeleteOptions& batchOptions) : options(batchOptions) {}

  /// Whether to stop before something that is still to be done.
  bool stops() {
    if (!options.progress || !options.progress->isCancelled()) return false;
    isStopped_.store(true, std::memory_order_relaxed);
    return true;
  }

  void addRemoved(int64_t count) {
    removed_.fetch_add(count, std::memory_order_relaxed);
    if (options.progress) options.progress->add(0, count);
  }

  void addFailure(int error, std::string_view path) {
    const std::lock_guard lock(mutex_);
    ++failed_;
    if (!firstCause_) firstCause_ = Error::posix(error, path);
  }

  DeepDeleteResult finish() {
    DeepDeleteResult result{removed_, failed_, std::nullopt};
    if (!isStopped_ && !firstCause_) return result;
    Dictionary information;
    information.set(kRemovedCountKey, result.removed);
    information.set(kFailedCountKey, failed_);
    auto code = DeletionErrorCode::cancelled;
    std::string text = format("Cancelled after %lld entries were removed", result.removed);
    if (!isStopped_) {
      code = DeletionErrorCode::incomplete;
      text = format("%lld entries were removed, %lld could not be: %@", result.removed, failed_,
                    firstCause_->localizedDescription());
      information.set(kFirstCauseKey, *firstCause_);
    }
    information.set(kLocalizedDescriptionKey, text);
    result.error = Error(kDeletionErrorDomain, static_cast<int64_t>(code), information);
    return result;
  }

  const DeepDeleteOptions options;
  WalkCrew crew;

 private:
  std::atomic<int64_t> removed_ = 0;
  std::atomic<bool> isStopped_ = false;
  std::mutex mutex_;
  int64_t failed_ = 0;
  std::optional<Error> firstCause_;
};

/// Removes what is pending at the start, and what it gets to read of it, with all beneath. A part waits
/// before it leaves a folder of which it gave something away, because that can go only when it is empty.
class DeletionPart final : public WalkCrew::Part {
 public:
  DeletionPart(Deletion& deletion, DirectoryStack::Start start, uint64_t mount,
               std::shared_ptr<Findings> findings = nullptr, Descriptor reading = {})
      : Part(deletion.crew, std::move(start), mount, deletion.options.opening),
        deletion_(deletion),
        levels_(1),
        findings_(std::move(findings)),
        reading_(std::move(reading)) {}

  /// Makes the part leave the folder `name` of the start, and in it what has these names.
  void emptyOnly(std::string name, std::span<const std::string> keep) {
    emptied_ = std::move(name);
    keep_ = keep;
  }

  bool run(DirectoryReader& reader) override {
    reader_ = &reader;
    if (!emptied_.empty() && stack_.depth() == 1) {
      if (const int error = enter(emptied_, 0)) {
        fail(emptied_, error == EXDEV ? EBUSY : error);
        return true;
      }
    }
    if (const Descriptor reading = std::move(reading_)) scan(reading.get());
    const std::size_t lowest = emptied_.empty() ? 1 : 2;
    for (std::string name;;) {
      if (stack_.hasPending()) {
        if (deletion_.stops()) break;
        stack_.takePending(name);
        removeFolder(name, 0);
        giveAway();
      } else if (levels_.back().findings && mustWaitForGiven()) {
        return false;
      } else if (stack_.depth() > lowest) {
        if (deletion_.stops()) break;
        leave();
      } else if (emptied_.empty() || !mayReadAgain(state()) || deletion_.stops()) {
        break;
      } else {
        readAgain();
      }
    }
    flush();
    if (findings_ && levels_[0].state.failed) findings_->failed = true;
    if (findings_ && levels_[0].state.changed) findings_->changed = true;
    return true;
  }

 private:
  struct Level {
    State state;
    std::shared_ptr<Findings> findings;  // Of those who were given something of it.
  };

  /// Entries removed between two additions to the count that all share.
  static constexpr int64_t kFlushInterval = 64;

  void give(DirectoryStack::Start start, std::size_t level, Descriptor reading) override {
    auto& findings = levels_[level].findings;
    if (!findings) findings = std::make_shared<Findings>();
    crew_.give(std::make_shared<DeletionPart>(deletion_, std::move(start), stack_.mount(), findings,
                                              std::move(reading)),
               findings);
  }

  /// Waits for what was given away of the top folder, and learns what became of it.
  bool mustWaitForGiven() {
    flush();
    if (mustWait(*levels_.back().findings)) return true;
    const auto findings = std::move(levels_.back().findings);
    state().failed |= findings->failed;
    state().changed |= findings->changed;
    return false;
  }

  /// Enters the folder and removes what is no folder in it, or removes the entry if it is no folder any more.
  void removeFolder(const std::string& name, unsigned pass) {
    const int error = enter(name, pass);
    if (error == 0) return;
    if (error == ENOENT || error == ESTALE) {
      state().changed = true;
    } else if (error == ENOTDIR || error == ELOOP) {
      unlink(name.c_str(), stack_.top());
    } else if (error == EXDEV) {
      fail(name, EBUSY);
    } else if (error == EACCES && ::unlinkat(stack_.top(), name.c_str(), AT_REMOVEDIR) == 0) {
      countRemoved();  // Unreadable, but empty.
    } else {
      fail(name, error);
    }
  }

  /// Puts the folder `name` on top and removes what is no folder in it. Returns 0 or an errno.
  int enter(const std::string& name, unsigned pass) {
    struct statx facts;
    if (const int error = stack_.enter(name, facts)) return error;
    levels_.push_back({{false, false, pass}, nullptr});
    WalkProgress* const progress = deletion_.options.progress;
    if (progress && progress->wantsFolder()) progress->noteFolder(stack_.pathOf({}));
    scanTop();
    return 0;
  }

  /// Reads the folder that stays once more.
  void readAgain() {
    state() = {false, false, state().pass + 1};
    ::lseek(stack_.top(), 0, SEEK_SET);
    scanTop();
  }
  static bool mayReadAgain(const State& state) {
    return state.changed && !state.failed && state.pass < kMaximumPasses;
  }

  void scanTop() {
    if (const int error = scan(stack_.top())) fail({}, error);
  }

  /// Removes what the top folder, open as `reading`, still holds. Returns 0 or an errno.
  int scan(int reading) {
    const bool keeps = stack_.depth() == 2 && !keep_.empty();
    for (int error = 0;;) {
      const std::string_view entries = reader_->next(reading, error);
      if (entries.empty()) return error;
      const bool areLast = stack_.areLast(entries);
      if (!keeps && !areLast) shareReading(reading, entries);
      if (!removeEntries(entries, keeps) || areLast) return 0;
    }
  }

  /// Removes those entries of the top folder that are no folders, and notes the others. False when cancelled.
  bool removeEntries(std::string_view entries, bool keeps) {
    const int folder = stack_.top();
    return DirectoryReader::forEach(entries, [&](const char* name, unsigned char type) {
      if (keeps && std::find(keep_.begin(), keep_.end(), name) != keep_.end()) return true;
      if (deletion_.stops()) return false;
      if (type == DT_DIR) {
        stack_.addPending(name);
      } else {
        unlink(name, folder);
      }
      return true;
    });
  }

  /// Leaves the top folder and removes it, unless something in it could not go.
  void leave() {
    const State left = state();
    const std::string name = stack_.name();
    stack_.leave();
    levels_.pop_back();
    if (left.failed) {
      state().failed = true;
      return;
    }
    const int parent = stack_.top();
    if (parent >= 0 && ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0) {
      countRemoved();
    } else if (parent < 0 || errno == ENOENT) {
      // Moved away; if it is still in the tree, it is met again when the folder that holds it is not empty.
      state().changed = true;
    } else if ((errno == ENOTEMPTY || errno == EEXIST) && mayReadAgain(left)) {
      removeFolder(name, left.pass + 1);
    } else if (errno == ENOTDIR) {
      unlink(name.c_str(), parent);
    } else {
      fail(name, errno);
    }
  }

  void unlink(const char* name, int folder) {
    if (::unlinkat(folder, name, 0) == 0) {
      countRemoved();
    } else if (errno == EISDIR) {
      stack_.addPending(name);
    } else if (errno != ENOENT) {
      fail(name, errno);
    }
  }

  State& state() { return levels_.back().state; }

  void countRemoved() {
    state().changed = true;
    if (++done_ - flushed_ == kFlushInterval) flush();
  }

  void flush() { deletion_.addRemoved(done_ - std::exchange(flushed_, done_)); }

  void fail(std::string_view name, int error) {
    state().failed = true;
    deletion_.addFailure(error, stack_.pathOf(name));
  }

  Deletion& deletion_;
  std::vector<Level> levels_;  // One for each level of the stack.
  const std::shared_ptr<Findings> findings_;
  Descriptor reading_;
  std::string emptied_;
  std::span<const std::string> keep_;
  DirectoryReader* reader_ = nullptr;  // Of the thread.
  int64_t flushed_ = 0;                // Of those that were removed, told to all.
};

/// Splits the item's path into the folder that holds it, which becomes the start, and its name.
int openParent(const URL& item, DirectoryStack::Start& start, uint64_t& mount, std::string& name) {
  const std::string path = item.path();
  const std::size_t nameStart = path.rfind('/') + 1;
  name = path.substr(nameStart);
  if (!item.isFileURL() || path.find('\0') != path.npos || name.empty() || name == "." || name == "..")
    return EINVAL;
  start.path = path.substr(0, nameStart);
  start.folder = Descriptor(::open(start.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!start.folder) return errno;
  struct statx facts;
  if (const int error = factsAt(start.folder.get(), "", facts)) return error;
  mount = mountOf(facts);
  return factsAt(start.folder.get(), name.c_str(), facts);
}

}  // namespace

DeepDeleteResult deepDelete(std::span<const URL> items, const DeepDeleteOptions& options) {
  Deletion deletion(options);
  for (const URL& item : items) {
    if (deletion.stops()) break;
    DirectoryStack::Start start;
    uint64_t mount = 0;
    std::string name;
    if (const int error = openParent(item, start, mount, name)) {
      deletion.addFailure(error, item.isFileURL() ? item.path() : item.description());
      continue;
    }
    start.pending = '\0' + name;
    deletion.crew.run(std::make_shared<DeletionPart>(deletion, std::move(start), mount));
  }
  return deletion.finish();
}

DeepDeleteResult emptyFolder(const URL& folder, std::span<const std::string> keep,
                             const DeepDeleteOptions& options) {
  Deletion deletion(options);
  DirectoryStack::Start start;
  uint64_t mount = 0;
  std::string name;
  if (const int error = openParent(folder, start, mount, name)) {
    deletion.addFailure(error, folder.isFileURL() ? folder.path() : folder.description());
  } else {
    const auto part = std::make_shared<DeletionPart>(deletion, std::move(start), mount);
    part->emptyOnly(name, keep);
    deletion.crew.run(part);
  }
  return deletion.finish();
}

}  // namespace larkspan::platform
