// What watching a tree costs: the time and memory to establish the watches of 20,000 folders, beside inotifywait -m
// -r, and a burst of 100,000 creations until the last one is told. Each program is timed from its start to the line
// in which it says that it watches.

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/files/EventStream.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace larkspan::platform;
using Clock = std::chrono::steady_clock;

namespace {

double millisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// What a shell does.
int shell(const std::string& command) { return std::system(command.c_str()); }

std::unique_ptr<EventStream> watch(const std::string& tree, EventStream::Handler handler) {
  std::optional<Error> error;
  auto stream = EventStreams().make({{tree}, std::chrono::milliseconds(100)}, std::move(handler), error);
  if (error || (error = stream->start(DispatchQueue::global()))) {
    std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    std::exit(1);
  }
  return stream;
}

struct Cost {
  double milliseconds;
  long kilobytes;
};

Cost median(std::vector<Cost> costs) {
  std::sort(costs.begin(), costs.end(),
            [](const Cost& a, const Cost& b) { return a.milliseconds < b.milliseconds; });
  return costs[costs.size() / 2];
}

/// Of a program that says "established" on standard error; nothing, and a word about it, of one that does not.
std::optional<Cost> costOf(std::vector<std::string> words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  int says[2];
  if (pipe2(says, O_CLOEXEC) != 0) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, says[1], 2);
  pid_t process;
  const auto begin = Clock::now();
  const int failed = posix_spawnp(&process, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(says[1]);
  std::string said;
  char bytes[512];
  while (!failed && said.find("established") == said.npos) {
    const ssize_t size = read(says[0], bytes, sizeof bytes);
    if (size <= 0) break;
    said.append(bytes, static_cast<std::size_t>(size));
  }
  Cost cost{millisecondsSince(begin), 0};
  close(says[0]);
  if (failed) {
    std::fprintf(stderr, "%s: %s\n", pointers[0], std::strerror(failed));
    return std::nullopt;
  }
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) cost.kilobytes = std::stol(line.substr(6));
  }
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  if (said.find("established") != said.npos && cost.kilobytes != 0) return cost;
  std::fprintf(stderr, "%s ended before it watched: %s\n", pointers[0], said.c_str());
  return std::nullopt;
}

void burst(const std::string& tree) {
  constexpr int kFiles = 100'000;
  std::promise<void> told;
  const std::string last = tree + "/burst/" + std::to_string(kFiles - 1);
  bool isTold = false;
  const auto stream = watch(tree, [&](std::span<const FileEvent> batch) {
    for (const FileEvent& event : batch) {
      const bool is = event.path == last || (event.flags & kEventMustScanSubdirectories);
      if (is && !std::exchange(isTold, true)) told.set_value();
    }
  });
  const auto begin = Clock::now();
  mkdir((tree + "/burst").c_str(), 0755);
  for (int i = 0; i < kFiles; ++i) mknod((tree + "/burst/" + std::to_string(i)).c_str(), S_IFREG | 0644, 0);
  const double made = millisecondsSince(begin);
  told.get_future().wait();
  std::printf("burst of %d files: made in %.0f ms, told %.0f ms later\n", kFiles, made,
              millisecondsSince(begin) - made);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--watch") == 0) {
    const auto stream = watch(argv[2], [](std::span<const FileEvent>) {});
    std::fprintf(stderr, "Watches established.\n");
    pause();
  }
  char place[] = "/tmp/larkspan-benchmark-XXXXXX";
  if (!mkdtemp(place)) return 1;
  const std::string tree = place;
  shell("cd " + tree +
        " && for a in $(seq 20); do for b in $(seq 10); do for c in $(seq 10); do"
        " for d in $(seq 9); do echo folder$a/sub$b/third$c/leaf$d; done; done; done; done | xargs mkdir -p" +
        " && find . -mindepth 4 -type d | sed 's|.*|&/a.txt &/b.txt &/c.txt|' | xargs touch");
  std::vector<Cost> costs[2];
  bool isComplete = true;
  for (int round = 0; round < 7; ++round) {
    const auto ours = costOf({argv[0], "--watch", tree}), theirs = costOf({"inotifywait", "-m", "-r", tree});
    isComplete = ours && theirs;
    if (!isComplete) break;
    costs[0].push_back(*ours);
    costs[1].push_back(*theirs);
  }
  if (isComplete) {
    const Cost ours = median(costs[0]), theirs = median(costs[1]);
    std::printf("watches of 20,221 folders: %.0f ms, %ld kB\n", ours.milliseconds, ours.kilobytes);
    std::printf("inotifywait: %.0f ms, %ld kB; ratio of time %.2f (goal 0.35), of memory %.2f (goal 1.00)\n",
                theirs.milliseconds, theirs.kilobytes, ours.milliseconds / theirs.milliseconds,
                static_cast<double>(ours.kilobytes) / static_cast<double>(theirs.kilobytes));
    burst(tree);
  }
  shell("rm -rf " + tree);
  return isComplete ? 0 : 1;
}
