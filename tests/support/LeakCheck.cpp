#include "tests/support/LeakCheck.h"

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/platform/log/SystemLog.h"
#include "larkspan/platform/process/Child.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace larkspan::tests {
namespace {

using Names = std::set<std::string>;

std::string firstLine(const std::string& path) {
  std::string line;
  std::getline(std::ifstream(path), line);
  return line;
}

/// Everything of this process that a test could leave behind.
Names living() {
  namespace fs = std::filesystem;
  Names names;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const std::string target = fs::read_symlink(entry.path(), gone);
    // Not the one that lists the folder.
    if (target != "/proc/" + std::to_string(getpid()) + "/fd")
      names.insert("descriptor " + entry.path().filename().string() + " (" + target + ")");
  }
  for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
    const std::string name = firstLine(entry.path() / "comm");
    const bool lasts = name.starts_with("lks-") && name != "lks-reader" && name != "lks-walk";
    if (!name.empty() && !lasts) {
      names.insert("thread " + entry.path().filename().string() + " (" + name + ")");
    }
  }
  siginfo_t info{};
  if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0)
    names.insert("child " + std::to_string(info.si_pid));
  return names;
}

void wakeLastingThings() {
  using namespace platform;
  SystemLog("corvane.storage", "test").isEnabled(LogLevel::standard);
  mainQueueDescriptor();
  ManualClock().advance(std::chrono::nanoseconds(0));
  Collector<bool> done;
  for (const auto quality : {QualityOfService::defaultClass, QualityOfService::utility})
    DispatchQueue::global(quality)->after(std::chrono::nanoseconds(1), [&] { done.push(true); });
  ChildOptions options;
  options.arguments = {"true"};
  Child::start(options, [&](ExitStatus) { done.push(true); });
  done.waitFor(3);
}

class LeakListener : public testing::EmptyTestEventListener {
 public:
  LeakListener() : baseline_(living()) {}

 private:
  void OnTestEnd(const testing::TestInfo&) override {
    // What was let go may still be on its way out.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    Names now;
    Names left;
    for (;;) {
      now = living();
      left.clear();
      std::set_difference(now.begin(), now.end(), baseline_.begin(), baseline_.end(),
                          std::inserter(left, left.end()));
      if (left.empty() || std::chrono::steady_clock::now() > deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (const std::string& name : left) ADD_FAILURE() << "left behind: " << name;
    baseline_ = std::move(now);
  }

  Names baseline_;
};

}  // namespace

void checkForLeaks() {
  wakeLastingThings();
  testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
}

}  // namespace larkspan::tests
