#include "larkspan/platform/files/FolderSize.h"

#include "larkspan/platform/base/Saturating.h"
#include "larkspan/platform/files/DirectoryStack.h"
#include "larkspan/platform/files/Exclusions.h"
#include "larkspan/platform/files/InodeSet.h"
#include "larkspan/platform/files/WalkCrew.h"

#include <algorithm>
#include <deque>
#include <mutex>

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace larkspan::platform {

namespace {

/// The sums of one folder that is reported, without those of the reported folders in it.
struct Share {
  std::string name;
  std::size_t index = 0, parent = 0;
  unsigned depth = 0;
  std::atomic<int64_t> bytes = 0, entries = 0;
};

/// What is known of a level of a walk beside its folder.
struct Level {
  Exclusions::Place place;
  Share* share;
};

/// What the parts of one walk have in common.
class Sizing {
 public:
  Sizing(const std::string& path, const FolderSizeOptions& options)
      : exclusions(path, options.excluded), progress(options.progress), depth_(options.depth) {
    shares_.emplace_back();
  }

  Level root() { return {exclusions.root(), &shares_.front()}; }

  /// The share for the folder `name` of a folder with that share.
  Share* shareBeneath(Share* share, const std::string& name) {
    if (share->depth == depth_) return share;
    const std::lock_guard lock(mutex_);
    Share& result = shares_.emplace_back();
    result.name = name;
    result.index = shares_.size() - 1;
    result.parent = share->index;
    result.depth = share->depth + 1;
    return &result;
  }

  void leaveOut(std::string path, int error) {
    const bool isGone = error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
    const std::lock_guard lock(mutex_);
    ++(isGone ? result_.vanished : result_.unreadable);
    auto& first = isGone ? result_.firstVanished : result_.firstUnreadable;
    if (first.size() < FolderSizeResult::kLeftOutNamed) first.push_back({std::move(path), error});
  }

  void fail(int status) {
    const std::lock_guard lock(mutex_);
    result_.status = status;
  }

  /// Whether to stop before something that is still to be done.
  bool stops() {
    if (!progress || !progress->isCancelled()) return false;
    fail(ECANCELED);
    return true;
  }

  /// Once all parts are done.
  FolderSizeResult finish() {
    std::vector<FolderSizeResult::Folder> folders;
    folders.reserve(shares_.size());
    for (Share& share : shares_)
      folders.push_back({std::move(share.name), share.parent, share.depth, share.bytes, share.entries});
    for (std::size_t i = folders.size(); --i > 0;) {
      FolderSizeResult::Folder& parent = folders[folders[i].parent];
      parent.bytes = saturatingSum(parent.bytes, folders[i].bytes);
      parent.entries += folders[i].entries;
    }
    result_.bytes = folders[0].bytes;
    result_.entries = folders[0].entries;
    if (depth_ > 0) result_.folders = std::move(folders);
    return std::move(result_);
  }

  const Exclusions exclusions;
  WalkProgress* const progress;
  WalkCrew crew;
  InodeSet linked;

 private:
  const unsigned depth_;
  std::mutex mutex_;
  std::deque<Share> shares_;
  FolderSizeResult result_;
};

class SizingPart final : public WalkCrew::Part {
 public:
  /// The whole walk.
  SizingPart(Sizing& sizing, DirectoryStack::Start start, uint64_t mount)
      : SizingPart(sizing, std::move(start), mount, sizing.root(), {}, true) {}
  SizingPart(Sizing& sizing, DirectoryStack::Start start, uint64_t mount, Level level, Descriptor reading,
             bool isWhole = false)
      : Part(sizing.crew, std::move(start), mount, FolderOpening::automatic),
        sizing_(sizing),
        levels_{level},
        isWhole_(isWhole),
        reading_(std::move(reading)) {}

  bool run(DirectoryReader& reader) override {
    if (isWhole_) {
      if (const int error = scan(reader, stack_.top())) sizing_.fail(error);
    } else if (const Descriptor reading = std::move(reading_)) {
      scan(reader, reading.get());
    }
    std::string name;
    for (;;) {
      if (stack_.hasPending()) {
        if (sizing_.stops()) break;
        stack_.takePending(name);
        visit(reader, name);
        giveAway();
      } else if (stack_.depth() > 1) {
        stack_.leave();
        levels_.pop_back();
      } else {
        break;
      }
    }
    return true;
  }

 private:
  void give(DirectoryStack::Start start, std::size_t level, Descriptor reading) override {
    crew_.give(std::make_shared<SizingPart>(sizing_, std::move(start), stack_.mount(), levels_[level],
                                            std::move(reading)));
  }

  /// Counts what the top folder, open as `reading`, still holds and notes the folders in it. Returns 0 or an errno.
  int scan(DirectoryReader& reader, int reading) {
    if (sizing_.progress && sizing_.progress->wantsFolder()) sizing_.progress->noteFolder(stack_.pathOf({}));
    for (int error = 0;;) {
      const std::string_view entries = reader.next(reading, error);
      if (entries.empty()) return error;
      if (sizing_.stops()) return 0;
      const bool areLast = stack_.areLast(entries);
      if (!areLast) shareReading(reading, entries);
      count(entries);
      if (areLast) return 0;
    }
  }

  /// Counts entries of the top folder.
  void count(std::string_view entries) {
    const int folder = stack_.top();
    const Exclusions::Place place = levels_.back().place;
    Sum sum;
    DirectoryReader::forEach(entries, [&](const char* name, unsigned char type) {
      if (sizing_.stops()) return false;
      if (place != Exclusions::kNowhere && sizing_.exclusions.isExcluded(sizing_.exclusions.at(place, name)))
        return true;
      if (type == DT_DIR) {
        stack_.addPending(name);
        return true;
      }
      struct statx facts;
      if (const int error = factsAt(folder, name, facts)) {
        sizing_.leaveOut(stack_.pathOf(name), error);
      } else if (S_ISDIR(facts.stx_mode)) {
        stack_.addPending(name);
      } else if (mountOf(facts) == stack_.mount()) {
        sum.add(facts, sizing_.linked);
      }
      return true;
    });
    add(sum);
  }

  void visit(DirectoryReader& reader, const std::string& name) {
    struct statx facts;
    if (const int error = stack_.enter(name, facts)) {
      if (error != EXDEV) sizing_.leaveOut(stack_.pathOf(name), error);
      return;
    }
    const Level above = levels_.back();
    levels_.push_back({sizing_.exclusions.at(above.place, name), sizing_.shareBeneath(above.share, name)});
    Sum sum;
    sum.add(facts, sizing_.linked);
    add(sum);
    if (const int error = scan(reader, stack_.top())) sizing_.leaveOut(stack_.pathOf({}), error);
  }

  struct Sum {
    int64_t bytes = 0, entries = 0;

    void add(const struct statx& facts, InodeSet& linked) {
      ++entries;
      if (!S_ISDIR(facts.stx_mode) && facts.stx_nlink > 1 &&
          !linked.insert(::makedev(facts.stx_dev_major, facts.stx_dev_minor), facts.stx_ino))
        return;
      constexpr uint64_t kMaximumBlocks = INT64_MAX / 512;
      const uint64_t blocks = std::min<uint64_t>(facts.stx_blocks, kMaximumBlocks);
      bytes = saturatingSum(bytes, static_cast<int64_t>(blocks * 512));
    }
  };

  void add(const Sum& sum) {
    done_ += sum.entries;
    addSaturating(levels_.back().share->bytes, sum.bytes);
    addSaturating(levels_.back().share->entries, sum.entries);
    if (sizing_.progress) sizing_.progress->add(sum.bytes, sum.entries);
  }

  Sizing& sizing_;
  std::vector<Level> levels_;  // One for each level of the stack.
  const bool isWhole_;
  Descriptor reading_;
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
  Sizing sizing(path, options);
  sizing.crew.run(
      std::make_shared<SizingPart>(sizing, DirectoryStack::Start{std::move(root), path}, mountOf(facts)));
  return sizing.finish();
}

}  // namespace larkspan::platform
