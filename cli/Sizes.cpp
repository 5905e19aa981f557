#include "cli/Sizes.h"

#include "cli/Ending.h"
#include "cli/Json.h"
#include "cli/Output.h"
#include "cli/Progress.h"
#include "cli/Table.h"
#include "cli/Text.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/FolderSize.h"
#include "larkspan/platform/text/SizeText.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::cli {

using platform::Array;
using platform::Dictionary;
using platform::DispatchQueue;
using platform::FolderSizeResult;
using platform::sizeText;
using platform::URL;
using platform::Value;
using Folder = FolderSizeResult::Folder;

namespace {

constexpr std::chrono::milliseconds kRedrawInterval{100};
constexpr std::size_t kBarWidth = 20;

/// The absolute path without links and detours; with `last`, the last component may be a link and stays.
std::string resolved(const std::string& path, bool last) {
  if (!last) {
    char* const real = realpath(path.c_str(), nullptr);
    const std::string result = real ? real : URL::file(path).path();
    free(real);
    return result;
  }
  const std::string absolute = URL::file(path).path();
  const std::size_t slash = absolute.rfind('/');
  const std::string name = absolute.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return resolved(path, false);
  const std::string folder = resolved(absolute.substr(0, slash + 1), false);
  return folder + (folder.ends_with('/') ? "" : "/") + name;
}

/// What takes space counts alone when it is no folder.
FolderSizeResult sizeOf(const std::string& argument, const platform::FolderSizeOptions& options) {
  std::string path = resolved(argument, false);
  struct stat itself;
  // A link that leads nowhere takes space itself.
  if (::access(path.c_str(), F_OK) != 0 && ::lstat(argument.c_str(), &itself) == 0)
    path = resolved(argument, true);
  FolderSizeResult result = platform::sizeFolder(URL::file(path), options);
  struct statx facts;
  if (result.status != ENOTDIR) return result;
  result.status = platform::factsAt(AT_FDCWD, path.c_str(), facts);
  if (result.status) return result;
  result.bytes = static_cast<int64_t>(facts.stx_blocks) * 512;
  result.entries = 1;
  return result;
}

/// One of the paths, as it was given, and what is there.
struct Sized {
  std::string path;
  FolderSizeResult result;
};

/// The indices of folders, each before those in it, the largest first.
std::vector<std::size_t> inOrder(const std::vector<Folder>& folders) {
  std::vector<std::vector<std::size_t>> inside(folders.size());
  for (std::size_t i = 1; i < folders.size(); ++i) inside[folders[i].parent].push_back(i);
  for (auto& each : inside) {
    std::sort(each.begin(), each.end(), [&](std::size_t a, std::size_t b) {
      return folders[a].bytes != folders[b].bytes ? folders[a].bytes < folders[b].bytes
                                                  : folders[a].name > folders[b].name;
    });
  }
  std::vector<std::size_t> order;
  for (std::vector<std::size_t> next{0}; !next.empty();) {
    const std::size_t at = next.back();
    next.pop_back();
    next.insert(next.end(), inside[at].begin(), inside[at].end());
    order.push_back(at);
  }
  return order;
}

/// A bar that is full for the whole, in eighths of a column.
std::string barOf(int64_t bytes, int64_t whole) {
  constexpr const char* kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  const double share = whole > 0 ? static_cast<double>(bytes) / static_cast<double>(whole) : 0;
  const auto eighths = static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * kBarWidth * 8 + 0.5);
  std::string bar;
  for (std::size_t i = 0; i < eighths / 8; ++i) bar += "█";
  return bar + kEighths[eighths % 8];
}

void addRows(Table& table, const Sized& sized) {
  const auto& folders = sized.result.folders;
  for (const std::size_t at : inOrder(folders)) {
    const Folder& folder = folders[at];
    table.add({std::string(2 * folder.depth, ' ') + (at ? folder.name : sized.path), sizeText(folder.bytes),
               barOf(folder.bytes, sized.result.bytes)});
  }
}

std::string textOf(const std::vector<Sized>& all) {
  using Alignment = Table::Column::Alignment;
  Table table({{"FOLDER"}, {"SIZE", Alignment::right}, {"SHARE"}});
  std::string text;
  bool hasFolders = false;
  for (const Sized& sized : all) {
    if (sized.result.status) continue;
    hasFolders |= !sized.result.folders.empty();
    if (!sized.result.folders.empty())
      addRows(table, sized);
    else
      text += sizeText(sized.result.bytes) + "  " + printable(sized.path) + "\n";
  }
  return hasFolders ? text + table.text(outputWidth()) : text;
}

Value valueOf(const Sized& sized) {
  const FolderSizeResult& result = sized.result;
  if (result.status) return Dictionary{{"path", sized.path}, {"error", std::strerror(result.status)}};
  Dictionary dictionary{{"path", sized.path},
                        {"bytes", result.bytes},
                        {"entries", result.entries},
                        {"unreadable", result.unreadable}};
  if (result.folders.empty()) return dictionary;
  std::vector<Value> folders;
  std::vector<std::string> paths(result.folders.size(), sized.path);
  for (const std::size_t at : inOrder(result.folders)) {
    if (at == 0) continue;
    const Folder& folder = result.folders[at];
    const std::string& parent = paths[folder.parent];
    paths[at] = parent + (parent.ends_with('/') ? "" : "/") + folder.name;
    folders.push_back(Dictionary{{"path", paths[at]}, {"bytes", folder.bytes}, {"entries", folder.entries}});
  }
  dictionary.set("folders", Array(std::move(folders)));
  return dictionary;
}

class Sizes {
 public:
  explicit Sizes(const Options& options) : options_(options) {
    for (const std::string& path : options.excluded) excluded_.push_back(URL::file(resolved(path, true)));
  }

  void begin() {
    DispatchQueue::global(platform::QualityOfService::userInitiated)->async([this] {
      for (const std::string& path : options_.paths) {
        all_.push_back({path, sizeOf(path, {excluded_, &progress_, options_.depth})});
      }
      DispatchQueue::main()->async([this] { print(); });
    });
    if (Progress::canShow()) redrawLater();
  }

 private:
  void redrawLater() {
    DispatchQueue::main()->after(kRedrawInterval, [this] {
      Progress::show("… " + std::to_string(progress_.entries()) + " entries, " + sizeText(progress_.bytes()) +
                     "  " + printable(progress_.currentFolder()));
      redrawLater();
    });
  }

  void print() {
    Progress::erase();
    bool isComplete = true;
    std::vector<Value> values;
    for (const Sized& sized : all_) {
      if (options_.json) values.push_back(valueOf(sized));
      isComplete &= sized.result.status == 0;
      complainAbout(sized);
    }
    writeOutput(options_.json ? jsonText(Array(std::move(values)), true) + "\n" : textOf(all_));
    finish(isComplete ? 0 : 1);
  }

  static void complainAbout(const Sized& sized) {
    const FolderSizeResult& result = sized.result;
    if (result.status) return complain(sized.path + ": " + std::strerror(result.status));
    for (const auto& entry : result.firstUnreadable) complain(entry.path + ": " + std::strerror(entry.error));
    const auto more = result.unreadable - static_cast<int64_t>(result.firstUnreadable.size());
    if (more > 0) complain(sized.path + ": " + std::to_string(more) + " more entries could not be read");
  }

  const Options options_;
  std::vector<URL> excluded_;
  platform::WalkProgress progress_;
  std::vector<Sized> all_;
};

}  // namespace

void runSizes(const Options& options) {
  // Lives as long as the program: the walk may still go on when a signal ends it.
  static auto* const sizes = new Sizes(options);
  sizes->begin();
}

}  // namespace larkspan::cli
