// What it costs to size and to delete trees, beside the programs that people use for it. Whole processes are
// compared: they run in turn, several rounds, and the medians of time and memory are printed, with what ours should
// be of them at most. Everything is warm in the cache, as the first round is thrown away.

#include "larkspan/platform/files/DeepDelete.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

constexpr int kRounds = 7, kDeletionRounds = 5;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

/// A program: what to call it, and its words.
using Program = std::pair<std::string, Words>;

struct Cost {
  double seconds;
  long kilobytes;
};

/// What this program has needed at most. What a program that it starts is said to have needed is never less, as
/// the kernel counts from before execve(2); so whatever takes memory is done in children.
long floorOfMemory() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

/// Runs a program with its output thrown away.
Cost run(const Words& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const auto begin = std::chrono::steady_clock::now();
  pid_t process;
  errno = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  if (errno) fail(words[0]);
  int status;
  struct rusage usage;
  if (wait4(process, &status, 0, &usage) != process) fail(words[0]);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "%s ended with status %d\n", words[0].c_str(), status);
    std::exit(1);
  }
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
  posix_spawn_file_actions_destroy(&actions);
  return {passed.count(), usage.ru_maxrss};
}

template <typename T>
T median(std::vector<T> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

/// What ours should be at most: of the time of the fastest other, and of the memory of the first other; 0 where there
/// is no goal.
struct Goals {
  double time, memory;
};

void printRatio(const char* what, double ratio, double goal) {
  std::printf("  ratio of %s %.2f", what, ratio);
  if (goal > 0) std::printf(", goal %.2f%s", goal, ratio <= goal ? "" : ": missed");
}

/// Runs the programs in turn, ours first, and prints how they did and how ours did beside the others.
template <typename Prepare>
void compare(const std::string& title, const std::vector<Program>& programs, Goals goals, int rounds,
             Prepare prepare) {
  std::vector<std::vector<double>> seconds(programs.size());
  std::vector<std::vector<long>> kilobytes(programs.size());
  for (int round = 0; round <= rounds; ++round) {
    for (std::size_t i = 0; i < programs.size(); ++i) {
      prepare();
      const Cost cost = run(programs[i].second);
      if (round == 0) continue;
      seconds[i].push_back(cost.seconds);
      kilobytes[i].push_back(cost.kilobytes);
    }
  }
  const long floor = floorOfMemory();
  double best = 0;
  std::printf("%s (no memory below %.1f MB can be told)\n", title.c_str(), static_cast<double>(floor) / 1024);
  for (std::size_t i = 0; i < programs.size(); ++i) {
    const double time = median(seconds[i]);
    if (i > 0 && (best == 0 || time < best)) best = time;
    const long memory = median(kilobytes[i]);
    std::printf("  %-24s %8.3f s %8.1f MB%s\n", programs[i].first.c_str(), time,
                static_cast<double>(memory) / 1024, memory <= floor ? " at most" : "");
  }
  printRatio("time", median(seconds[0]) / best, goals.time);
  printRatio("memory", static_cast<double>(median(kilobytes[0])) / static_cast<double>(median(kilobytes[1])),
             goals.memory);
  std::printf("\n");
  std::fflush(stdout);
}

int openFolder(int parent, const std::string& name) {
  if (mkdirat(parent, name.c_str(), 0755) != 0) fail(name);
  const int folder = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) fail(name);
  return folder;
}

void addFiles(int folder, int count) {
  for (int i = 0; i < count; ++i) {
    const std::string name = "file" + std::to_string(i);
    const int file = openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || (i % 3 == 0 && write(file, name.data(), name.size()) < 0)) fail(name);
    close(file);
  }
}

/// 300,000 files in 20,000 folders.
void makeTree(int root) {
  for (int i = 0; i < 100; ++i) {
    const int above = openFolder(root, std::to_string(i));
    for (int k = 0; k < 200; ++k) {
      const int folder = openFolder(above, std::to_string(k));
      addFiles(folder, 15);
      close(folder);
    }
    close(above);
  }
}

/// 200,000 files in one folder.
void makeFlat(int root) { addFiles(root, 200'000); }

/// 20,000 folders within one another.
void makeChain(int root) {
  int folder = dup(root);
  for (int i = 0; i < 20'000; ++i) {
    const int next = openFolder(folder, "d");
    close(folder);
    folder = next;
  }
  close(folder);
}

struct Shape {
  const char* name;
  void (*make)(int root);
};
constexpr Shape kShapes[] = {{"tree", makeTree}, {"flat", makeFlat}, {"chain", makeChain}};

void make(const Shape& shape, const std::string& path) {
  const int root = openFolder(AT_FDCWD, path);
  shape.make(root);
  close(root);
}

const std::string kSelf = "/proc/self/exe";

/// Run as a program of its own.
bool removeTree(const std::string& path) {
  return !larkspan::platform::deepDelete({{larkspan::platform::URL::file(path)}}).error;
}

std::string typeOf(const struct statfs& facts) {
  switch (facts.f_type) {
    case TMPFS_MAGIC:
      return "tmpfs";
    case EXT4_SUPER_MAGIC:
      return "ext4";
    case XFS_SUPER_MAGIC:
      return "xfs";
    case BTRFS_SUPER_MAGIC:
      return "btrfs";
    case OVERLAYFS_SUPER_MAGIC:
      return "overlayfs";
  }
  char text[32];
  std::snprintf(text, sizeof text, "file system 0x%lx", static_cast<unsigned long>(facts.f_type));
  return text;
}

void compareSizing(const std::string& title, const std::string& larkspan, const std::string& path) {
  compare("size " + title,
          {{"larkspan size", {larkspan, "size", path}},
           {"du -s", {"du", "-sx", path}},
           {"ncdu", {"ncdu", "-0", "-x", "-o", "/dev/null", path}},
           {"gdu", {"gdu", "-n", "-p", "-s", "-x", path}}},
          {0.5, 1.0}, kRounds, [] {});
}

}  // namespace

/// usage: larkspan_files_benchmark LARKSPAN [FOLDER...]: LARKSPAN is the command; trees are made in the
/// folders.
int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--delete") == 0) return removeTree(argv[2]) ? 0 : 1;
  if (argc < 2) return 2;
  const std::string larkspan = argv[1];
  std::vector<std::string> bases(argv + 2, argv + argc);
  if (bases.empty()) bases = {"/tmp", "/dev/shm"};
  for (std::size_t b = 0; b < bases.size(); ++b) {
    std::string base = bases[b] + "/larkspan-benchmark-XXXXXX";
    struct statfs facts;
    if (!mkdtemp(base.data()) || statfs(base.c_str(), &facts) != 0) fail(base);
    const bool isInMemory = facts.f_type == TMPFS_MAGIC;
    for (const Shape& shape : kShapes) {
      const std::string path = base + "/" + shape.name;
      const std::string title = std::string(shape.name) + " in " + bases[b] + ", " + typeOf(facts);
      make(shape, path);
      compareSizing(title, larkspan, path);
      if (shape.make == makeTree) {
        Words excluding{larkspan, "size", path};
        for (int i = 0; i < 100; ++i)
          excluding.insert(excluding.end(), {"--exclude", path + "/" + std::to_string(i) + "/none"});
        compare("size " + title + ", excluding",
                {{"100 exclusions", excluding}, {"no exclusion", {larkspan, "size", path}}}, {1.1, 0},
                kRounds, [] {});
      }
      run({kSelf, "--delete", path});
      compare("delete " + title, {{"larkspan", {kSelf, "--delete", path}}, {"rm -rf", {"rm", "-rf", path}}},
              {isInMemory ? 0.5 : 1.0, 0}, kDeletionRounds, [&] { make(shape, path); });
    }
    run({kSelf, "--delete", base});
  }
  struct statfs facts;
  if (statfs("/usr", &facts) != 0) fail("/usr");
  compareSizing("/usr, " + typeOf(facts), larkspan, "/usr");
}
