#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/platform/log/SystemLog.h"
#include "larkspan/platform/process/Child.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace larkspan::tests {
namespace {

using Names = std::set<std::string>;

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
    std::string name;
    std::getline(std::ifstream(entry.path() / "comm"), name);
    const bool lasts = name.starts_with("lks-") && name != "lks-reader" && name != "lks-walk";
    if (!name.empty() && !lasts)
      names.insert("thread " + entry.path().filename().string() + " (" + name + ")");
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

/// Fails every test that leaves a descriptor, a thread or a child behind, and names what is left. What the
/// library keeps for the life of the process does not count: it is brought to life first, and its threads are
/// known by their names ("lks-"), but for "lks-reader" and "lks-walk": those go with their transport and their
/// walk.
class LeakListener : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo&) override {
    // What was let go may still be on its way out.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    Names now, left;
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      left = now = living();
      std::erase_if(left, [this](const std::string& name) { return baseline_.contains(name); });
      if (left.empty() || std::chrono::steady_clock::now() > deadline) break;
    }
    for (const std::string& name : left) ADD_FAILURE() << "left behind: " << name;
    baseline_ = std::move(now);
  }

  Names baseline_ = living();
};

}  // namespace
}  // namespace larkspan::tests

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    larkspan::tests::wakeLastingThings();
    testing::UnitTest::GetInstance()->listeners().Append(new larkspan::tests::LeakListener);
  }
  return RUN_ALL_TESTS();
}
