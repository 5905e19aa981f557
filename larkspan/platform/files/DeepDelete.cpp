#include "larkspan/platform/files/DeepDelete.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/files/DirectoryStack.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

/// How often one folder is read again because something was left in it after all was removed: entries that
/// appear meanwhile, or that the file system skips when others are removed between two reads.
constexpr unsigned kMaximumPasses = 64;

/// The deletion of one batch.
class Deletion {
 public:
  explicit Deletion(const DeepDeleteOptions& options) : options_(options) {}

  void remove(const URL& item) {
    if (!open(item)) return;
    struct statx facts;
    if (const int error = factsAt(stack_->top(), name_.c_str(), facts)) {
      fail(name_, error);
      return;
    }
    removeFolder(name_, 0);
    removeEntered(1);
  }

  void empty(const URL& folder, std::span<const std::string> keep) {
    if (!open(folder)) return;
    keep_ = keep;
    if (const int error = enter(name_, 0)) {
      fail(name_, error == EXDEV ? EBUSY : error);
      return;
    }
    removeEntered(2);
    for (unsigned pass = 1; pass < kMaximumPasses && needsAnotherPass(); ++pass) {
      states_.back() = {};
      ::lseek(stack_->top(), 0, SEEK_SET);
      scan();
      removeEntered(2);
    }
  }

  DeepDeleteResult finish() {
    DeepDeleteResult result{removed_, failed_, std::nullopt};
    if (!isCancelled() && !firstCause_) return result;
    Dictionary information;
    information.set(kRemovedCountKey, removed_);
    information.set(kFailedCountKey, failed_);
    auto code = DeletionErrorCode::cancelled;
    std::string text = format("Cancelled after %lld entries were removed", removed_);
    if (!isCancelled()) {
      code = DeletionErrorCode::incomplete;
      text = format("%lld entries were removed, %lld could not be: %@", removed_, failed_,
                    firstCause_->localizedDescription());
      information.set(kFirstCauseKey, *firstCause_);
    }
    information.set(kLocalizedDescriptionKey, text);
    result.error = Error(kDeletionErrorDomain, static_cast<int64_t>(code), information);
    return result;
  }

  bool isCancelled() const { return options_.progress && options_.progress->isCancelled(); }

 private:
  /// What is known of a level of the stack.
  struct State {
    bool failed = false;   // Something beneath could not go, so the folder cannot.
    bool changed = false;  // Something in it went or moved away in this pass.
    unsigned pass = 0;
  };

  /// Splits the item's path into the folder that holds it, which becomes the start of the stack, and its
  /// name.
  bool open(const URL& item) {
    const std::string path = item.path();
    const std::size_t nameStart = path.rfind('/') + 1;
    name_ = path.substr(nameStart);
    int error = 0;
    if (!item.isFileURL() || path.find('\0') != path.npos || name_.empty() || name_ == "." || name_ == "..") {
      error = EINVAL;
    } else {
      const std::string parentPath = path.substr(0, nameStart);
      Descriptor parent(::open(parentPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      struct statx facts;
      error = parent ? factsAt(parent.get(), "", facts) : errno;
      if (!error) stack_.emplace(std::move(parent), parentPath, facts, options_.opening);
    }
    if (error) {
      ++failed_;
      if (!firstCause_) firstCause_ = Error::posix(error, item.isFileURL() ? path : item.description());
    }
    states_.assign(1, {});
    return error == 0;
  }

  /// Removes what is beneath the top level and the levels down to `depth`, which stays.
  void removeEntered(std::size_t depth) {
    std::string name;
    while (!isCancelled()) {
      if (stack_->takePending(name)) {
        removeFolder(name, 0);
      } else if (stack_->depth() > depth) {
        leave();
      } else {
        break;
      }
    }
  }

  /// Enters the folder and removes what is no folder in it, or removes the entry if it is no folder any more.
  void removeFolder(const std::string& name, unsigned pass) {
    const int error = enter(name, pass);
    if (error == 0 || error == ENOENT) return;
    if (error == ESTALE) {
      states_.back().changed = true;
    } else if (error == ENOTDIR || error == ELOOP) {
      unlink(name.c_str(), stack_->top());
    } else if (error == EXDEV) {
      fail(name, EBUSY);
    } else if (error == EACCES && ::unlinkat(stack_->top(), name.c_str(), AT_REMOVEDIR) == 0) {
      countRemoved();  // Unreadable, but empty.
    } else {
      fail(name, error);
    }
  }

  /// Puts the folder `name` on top and removes what is no folder in it. Returns 0 or an errno.
  int enter(const std::string& name, unsigned pass) {
    struct statx facts;
    if (const int error = stack_->enter(name, facts)) return error;
    states_.push_back({false, false, pass});
    if (options_.progress && options_.progress->wantsFolder())
      options_.progress->noteFolder(stack_->pathOf({}));
    scan();
    return 0;
  }

  bool needsAnotherPass() const { return states_.back().changed && !states_.back().failed && !isCancelled(); }

  void scan() {
    const int folder = stack_->top();
    const bool keeps = stack_->depth() == 2 && !keep_.empty();
    const int error = reader_.read(folder, [&](const char* name, unsigned char type) {
      if (isCancelled()) return false;
      if (keeps && std::find(keep_.begin(), keep_.end(), name) != keep_.end()) return true;
      if (type == DT_DIR) {
        stack_->addPending(name);
      } else {
        unlink(name, folder);
      }
      return true;
    });
    if (error) fail({}, error);
  }

  /// Leaves the top folder and removes it, unless something in it could not go.
  void leave() {
    const State state = states_.back();
    const std::string name = stack_->name();
    stack_->leave();
    states_.pop_back();
    if (state.failed) {
      states_.back().failed = true;
      return;
    }
    const int parent = stack_->top();
    if (parent >= 0 && ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0) {
      countRemoved();
    } else if (parent < 0 || errno == ENOENT) {
      // Moved away; if it is still in the tree, it is met again when the folder that holds it is not empty.
      states_.back().changed = true;
    } else if ((errno == ENOTEMPTY || errno == EEXIST) && state.changed && state.pass < kMaximumPasses) {
      removeFolder(name, state.pass + 1);
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
      stack_->addPending(name);
    } else if (errno != ENOENT) {
      fail(name, errno);
    }
  }

  void countRemoved() {
    ++removed_;
    states_.back().changed = true;
    if (options_.progress) options_.progress->add(0, 1);
  }

  void fail(std::string_view name, int error) {
    states_.back().failed = true;
    ++failed_;
    if (!firstCause_) firstCause_ = Error::posix(error, stack_->pathOf(name));
  }

  const DeepDeleteOptions options_;
  std::string name_;
  std::span<const std::string> keep_;
  std::optional<DirectoryStack> stack_;
  std::vector<State> states_;  // One for each level of the stack.
  DirectoryReader reader_;
  int64_t removed_ = 0;
  int64_t failed_ = 0;
  std::optional<Error> firstCause_;
};

}  // namespace

DeepDeleteResult deepDelete(std::span<const URL> items, const DeepDeleteOptions& options) {
  Deletion deletion(options);
  for (const URL& item : items) {
    if (deletion.isCancelled()) break;
    deletion.remove(item);
  }
  return deletion.finish();
}

DeepDeleteResult emptyFolder(const URL& folder, std::span<const std::string> keep,
                             const DeepDeleteOptions& options) {
  Deletion deletion(options);
  deletion.empty(folder, keep);
  return deletion.finish();
}

}  // namespace larkspan::platform
