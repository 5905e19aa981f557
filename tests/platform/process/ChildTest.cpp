#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/process/Child.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace larkspan::platform {
namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

/// Starts a child and collects what comes back.
class Started {
 public:
  explicit Started(ChildOptions options) : seen_(std::make_shared<Seen>()) {
    if (options.standardErrorLine) {
      options.standardErrorLine = [seen = seen_](std::string_view line) {
        std::lock_guard lock(seen->mutex);
        seen->lines.emplace_back(line);
        seen->changed.notify_all();
      };
    }
    auto started = Child::start(options, [seen = seen_](ExitStatus status) {
      EXPECT_TRUE(isIoThread());
      std::lock_guard lock(seen->mutex);
      seen->exits.push_back(status.description());
      seen->changed.notify_all();
    });
    if (auto* error = std::get_if<Error>(&started)) {
      failure = error->localizedDescription();
    } else {
      child = std::get<0>(started);
    }
  }

  /// How it ended, once, or why it did not start.
  std::string end() {
    if (!child) return failure;
    std::unique_lock lock(seen_->mutex);
    seen_->changed.wait_for(lock, 20s, [&] { return !seen_->exits.empty(); });
    return seen_->exits.size() == 1 ? seen_->exits.front() : std::to_string(seen_->exits.size()) + " ends";
  }
  Lines lines(std::size_t atLeast = 0) {
    std::unique_lock lock(seen_->mutex);
    seen_->changed.wait_for(lock, 20s, [&] { return seen_->lines.size() >= atLeast; });
    return seen_->lines;
  }

  std::string failure;
  std::shared_ptr<Child> child;

 private:
  struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    Lines lines, exits;
  };
  const std::shared_ptr<Seen> seen_;
};

const ChildOptions::LineHandler kCollect = [](std::string_view) {};

ChildOptions shell(const char* script) {
  ChildOptions options;
  options.arguments = {"sh", "-c", script};
  options.standardErrorLine = kCollect;
  return options;
}

TEST(Child, GetsWhatItWasPromisedAndNothingElse) {
  // What must not reach the child: an open descriptor, an ignored signal, a blocked one, another environment.
  const Descriptor stray(fcntl(STDERR_FILENO, F_DUPFD, 200));
  const auto oldHandler = std::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Descriptor ours(ends[0]);
  Descriptor theirs(ends[1]);

  ChildOptions options;
  options.arguments = {LARKSPAN_TEST_BIN "/fixtures/ChildReport", "a b", ""};
  options.environment = Lines{"LARKSPAN_VALUE=7", "LISTEN_PID=1", "LISTEN_FDS=9"};
  options.workingFolder = "/";
  options.descriptors = {{3, theirs.get()}};
  options.announcesListeners = true;
  options.standardErrorLine = kCollect;
  options.parentDeathSignal = SIGTERM;
  Started run(options);
  theirs.reset();
  EXPECT_EQ(send(ours.get(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(run.end(), "exit code 0");
  std::signal(SIGUSR1, oldHandler);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);

  EXPECT_EQ(run.lines(), (Lines{"arguments [a b] []", "descriptors 0 1 2 3", "input null", "output error",
                                "SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000", "death 15",
                                "folder /", "value 7", "listeners 1 mine", "three x"}));
  EXPECT_EQ(run.child->exitStatus(), (ExitStatus{ExitStatus::Kind::exited, 0}));
  EXPECT_FALSE(run.child->kill(SIGKILL));
}

TEST(Child, KeepsDescriptorsApartWhoseNumbersCross) {
  int first[2], second[2];
  ASSERT_EQ(pipe2(first, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(second, O_CLOEXEC), 0);
  const Descriptor all[] = {Descriptor(first[0]), Descriptor(first[1]), Descriptor(second[0]),
                            Descriptor(second[1])};
  // Each has the other's number in the child.
  const std::string script =
      "echo one >/dev/fd/" + std::to_string(second[1]) + "; echo two >/dev/fd/" + std::to_string(first[1]);
  ChildOptions options = shell(script.c_str());
  options.descriptors = {{second[1], first[1]}, {first[1], second[1]}};
  Started run(options);
  EXPECT_EQ(run.end(), "exit code 0");
  char text[8] = {};
  EXPECT_EQ(read(first[0], text, 4), 4);
  EXPECT_STREQ(text, "one\n");
  EXPECT_EQ(read(second[0], text, 4), 4);
  EXPECT_STREQ(text, "two\n");
}

TEST(Child, SaysWhichStepOfStartingFailed) {
  char script[] = "/tmp/larkspan-script-XXXXXX";
  const int file = mkstemp(script);
  ASSERT_GE(file, 0);
  ASSERT_EQ(fchmod(file, 0700), 0);
  ASSERT_EQ(write(file, "no program", 10), 10);
  close(file);
  const auto options = [](std::string program, std::string folder = {},
                          std::vector<ChildOptions::Passed> passed = {}) {
    ChildOptions result;
    result.arguments = {std::move(program)};
    result.workingFolder = std::move(folder);
    result.descriptors = std::move(passed);
    return result;
  };
  const struct {
    ChildOptions options;
    std::string failure;
  } cases[] = {
      {options("/no/such"), "/no/such: execve: No such file or directory"},
      {options("larkspan-no-such-program"), "larkspan-no-such-program: No such file or directory"},
      {options("/"), "/: execve: Permission denied"},
      {options(script), std::string(script) + ": execve: Exec format error"},
      {options("true", "/no/such"), "true: working folder: No such file or directory"},
      {options("true", {}, {{3, 4000}}), "true: passing a descriptor: Bad file descriptor"},
  };
  for (const auto& c : cases) EXPECT_EQ(Started(c.options).failure, c.failure);
  unlink(script);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1) << "a child that failed to start is reaped";

  EXPECT_THROW(Child::start({}, nullptr), std::invalid_argument);
  EXPECT_THROW(Child::start(options("true", {}, {{2, 1}}), nullptr), std::invalid_argument);
  EXPECT_THROW(Child::start(options("true", {}, {{256, 1}}), nullptr), std::invalid_argument);
  EXPECT_THROW(Child::start(options("true", {}, {{3, 1}, {3, 2}}), nullptr), std::invalid_argument);
}

TEST(Child, EndsByExitBySignalAndByDeadline) {
  EXPECT_EQ(Started(shell("exit 3")).end(), "exit code 3");
  EXPECT_EQ(Started(shell("kill -TERM $$")).end(), "signal 15 (Terminated)");
  {
    Started run(shell("exec sleep 1000"));
    EXPECT_EQ(run.child->exitStatus(), std::nullopt);
    EXPECT_TRUE(run.child->kill(SIGKILL));
    EXPECT_EQ(run.end(), "signal 9 (Killed)");
  }
  {
    Started run(shell("exec sleep 1000"));
    run.child->terminate(1h);
    EXPECT_EQ(run.end(), "signal 15 (Terminated)");
  }
  {
    // The script says when it has switched the signal off.
    Started run(shell("trap '' TERM; echo ready; exec sleep 1000"));
    EXPECT_EQ(run.lines(1), Lines{"ready"});
    run.child->terminate(1ms);
    EXPECT_EQ(run.end(), "signal 9 (Killed)");
  }
}

TEST(Child, DeliversItsStandardErrorInLinesOfBoundedLength) {
  const std::string most(Child::kMaxLine, 'x');
  Started run(
      shell("echo one; echo; echo two >&2; printf '%08192d\\n' 0 | tr 0 x; printf '%04095d\\n' 0 | tr 0 x;"
            "printf end; exec 1>&- 2>&-; exit 5"));
  EXPECT_EQ(run.end(), "exit code 5");
  EXPECT_EQ(run.lines(), (Lines{"one", "", "two", most, most, most.substr(1), "end"}));
}

TEST(Child, IsReapedThoughNobodyHoldsIt) {
  std::atomic<int> left = 100;
  std::promise<void> done;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 25; ++n) {
        ChildOptions options;
        options.arguments = {"true"};
        const auto started = Child::start(options, [&](ExitStatus status) {
          EXPECT_EQ(status, (ExitStatus{ExitStatus::Kind::exited, 0}));
          if (--left == 0) done.set_value();
        });
        EXPECT_EQ(started.index(), 0u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1) << "no zombie is left";
  EXPECT_EQ(errno, ECHILD);
}

TEST(Child, EndsOnceEvenWhereTheKernelReapsByItself) {
  const auto oldHandler = std::signal(SIGCHLD, SIG_IGN);
  Started run(shell("exit 3"));
  EXPECT_EQ(run.end(), "unknown");
  std::signal(SIGCHLD, oldHandler);
}

}  // namespace
}  // namespace larkspan::platform
