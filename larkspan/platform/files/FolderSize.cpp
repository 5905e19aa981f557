#include "larkspan/platform/files/FolderSize.h"

#include "larkspan/platform/files/DirectoryStack.h"
#include "larkspan/platform/files/Exclusions.h"

#include <limits>
#include <unordered_set>

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace larkspan::platform {

namespace {

struct Inode {
  uint64_t device, number;
  bool operator==(const Inode&) const = default;
};

struct InodeHash {
  std::size_t operator()(const Inode& inode) const {
    return (inode.number ^ (inode.device << 40)) * 0x9E3779B97F4A7C15u;
  }
};

/// One walk of one thread.
class Sizing {
 public:
  Sizing(const std::string& path, Descriptor root, const struct statx& facts,
         const FolderSizeOptions& options)
      : exclusions_(path, options.excluded),
        progress_(options.progress),
        stack_(std::move(root), path, facts, FolderOpening::automatic) {}

  FolderSizeResult run() {
    places_.push_back(exclusions_.root());
    result_.status = scan();
    std::string name;
    while (result_.status == 0) {
      if (isCancelled()) {
        result_.status = ECANCELED;
      } else if (stack_.takePending(name)) {
        visit(name);
      } else if (stack_.depth() > 1) {
        stack_.leave();
        places_.pop_back();
      } else {
        break;
      }
    }
    return std::move(result_);
  }

 private:
  bool isCancelled() const { return progress_ && progress_->isCancelled(); }

  /// Counts what the top folder holds and notes the folders in it. Returns 0 or an errno.
  int scan() {
    if (progress_ && progress_->wantsFolder()) progress_->noteFolder(stack_.pathOf({}));
    const int folder = stack_.top();
    const Exclusions::Place place = places_.back();
    return reader_.read(folder, [&](const char* name, unsigned char type) {
      if (isCancelled()) return false;
      if (place != Exclusions::kNowhere && exclusions_.isExcluded(exclusions_.at(place, name))) return true;
      if (type == DT_DIR) {
        stack_.addPending(name);
        return true;
      }
      struct statx facts;
      if (const int error = factsAt(folder, name, facts)) {
        leaveOut(name, error);
      } else if (S_ISDIR(facts.stx_mode)) {
        stack_.addPending(name);
      } else if (mountOf(facts) == stack_.mount()) {
        count(facts);
      }
      return true;
    });
  }

  void visit(const std::string& name) {
    struct statx facts;
    if (const int error = stack_.enter(name, facts)) {
      if (error != EXDEV) leaveOut(name, error);
      return;
    }
    count(facts);
    places_.push_back(exclusions_.at(places_.back(), name));
    if (const int error = scan()) leaveOut({}, error);
  }

  void count(const struct statx& facts) {
    int64_t bytes = 0;
    if (S_ISDIR(facts.stx_mode) || facts.stx_nlink < 2 ||
        counted_.insert({::makedev(facts.stx_dev_major, facts.stx_dev_minor), facts.stx_ino}).second) {
      constexpr uint64_t kMaximum = std::numeric_limits<int64_t>::max();
      const auto room = kMaximum - static_cast<uint64_t>(result_.bytes);
      bytes = static_cast<int64_t>(facts.stx_blocks > room / 512 ? room : facts.stx_blocks * 512);
    }
    result_.bytes += bytes;
    ++result_.entries;
    if (progress_) progress_->add(bytes, 1);
  }

  void leaveOut(std::string_view name, int error) {
    if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE) {
      ++result_.vanished;
      return;
    }
    ++result_.unreadable;
    if (result_.firstUnreadable.size() < FolderSizeResult::kUnreadableNamed) {
      result_.firstUnreadable.push_back({stack_.pathOf(name), error});
    }
  }

  const Exclusions exclusions_;
  WalkProgress* const progress_;
  DirectoryStack stack_;
  DirectoryReader reader_;
  std::vector<Exclusions::Place> places_;  // One for each level of the stack.
  std::unordered_set<Inode, InodeHash> counted_;
  FolderSizeResult result_;
};

}  // namespace

FolderSizeResult sizeFolder(const URL& folder, const FolderSizeOptions& options) {
  FolderSizeResult failure;
  const std::string path = folder.path();
  if (!folder.isFileURL() || path.find('\0') != std::string::npos) {
    failure.status = EINVAL;
    return failure;
  }
  Descriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  struct statx facts;
  failure.status = root ? factsAt(root.get(), "", facts) : errno;
  if (failure.status) return failure;
  return Sizing(path, std::move(root), facts, options).run();
}

}  // namespace larkspan::platform
