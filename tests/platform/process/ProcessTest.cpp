#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/process/Child.h"
#include "larkspan/platform/process/Identity.h"
#include "tests/platform/files/TestTree.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

#include <sys/wait.h>

namespace larkspan::platform {
namespace {

using Lines = std::vector<std::string>;

/// A child that has been started, and what comes back from it.
class Started {
 public:
  explicit Started(ChildOptions options) {
    options.standardErrorLine = [seen = seen_](std::string_view line) {
      seen->lines.push(std::string(line));
    };
    auto started = Child::start(options, [seen = seen_](ExitStatus status) {
      EXPECT_TRUE(isIoThread());
      seen->exits.push(status.description());
    });
    if (auto* error = std::get_if<Error>(&started)) {
      failure = error->localizedDescription();
    } else {
      child = std::get<0>(started);
    }
  }
  /// How it ended, each time.
  Lines ends() { return seen_->exits.waitFor(1); }
  Lines lines() { return seen_->lines.now(); }

  std::string failure;
  std::shared_ptr<Child> child;

 private:
  struct Seen {
    tests::Collector<std::string> lines, exits;
  };
  const std::shared_ptr<Seen> seen_ = std::make_shared<Seen>();
};

ChildOptions command(Lines arguments, std::vector<ChildOptions::Passed> descriptors = {}) {
  ChildOptions options;
  options.arguments = std::move(arguments);
  options.descriptors = std::move(descriptors);
  return options;
}
ChildOptions script(const std::string& script) { return command({"sh", "-c", script}); }

TEST(Child, GetsWhatItWasPromisedAndNothingElse) {
  // What must not reach the child: an open descriptor, an ignored signal, a blocked one, another environment.
  const Descriptor stray(fcntl(STDERR_FILENO, F_DUPFD, 200));
  const auto oldHandler = std::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const TestTree tree;
  tree.file("passed");
  const Descriptor passed(open((tree / "passed").c_str(), O_RDONLY | O_CLOEXEC));

  ChildOptions options = script(
      "echo \"[$1] [$2]\"; ls -m /proc/$$/fd; readlink /proc/$$/fd/0;"
      "[ /dev/fd/1 -ef /dev/fd/2 ] && grep -E 'Sig(Blk|Ign)' /proc/self/status;"
      "pwd; echo $LARKSPAN_VALUE; cat <&3");
  options.arguments.insert(options.arguments.end(), {"sh", "a b", ""});
  options.environment = Lines{"LARKSPAN_VALUE=7", "PATH=/usr/bin:/bin"};
  options.workingFolder = "/";
  options.descriptors = {{3, passed.get()}};
  Started run(options);
  EXPECT_EQ(run.ends(), Lines{"exit code 0"});
  std::signal(SIGUSR1, oldHandler);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);

  EXPECT_EQ(run.lines(), (Lines{"[a b] []", "0, 1, 2, 3", "/dev/null", "SigBlk:\t0000000000000000",
                                "SigIgn:\t0000000000000000", "/", "7", "x"}));
  EXPECT_FALSE(run.child->kill(SIGKILL));
}

TEST(Child, KeepsDescriptorsApartWhoseNumbersCross) {
  const TestTree tree;
  const Descriptor a(open((tree / "a").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const Descriptor b(open((tree / "b").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  // Each has the other's number in the child.
  const std::string crossed = std::to_string(b.get()), other = std::to_string(a.get());
  Started run(command({"sh", "-c", "echo one >/dev/fd/" + crossed + "; echo two >/dev/fd/" + other},
                      {{b.get(), a.get()}, {a.get(), b.get()}}));
  EXPECT_EQ(run.ends(), Lines{"exit code 0"});
  EXPECT_EQ(tree.shell("cat a b"), "one\ntwo\n");
}

TEST(Child, SaysWhichStepOfStartingFailed) {
  const TestTree tree;
  tree.file("script", "no program");
  ASSERT_EQ(chmod((tree / "script").c_str(), 0700), 0);
  ChildOptions nowhere = command({"true"});
  nowhere.workingFolder = "/no/such";
  const std::pair<ChildOptions, std::string> cases[] = {
      {command({"/no/such"}), "/no/such: execve: No such file or directory"},
      {command({"larkspan-no-such-program"}), "larkspan-no-such-program: No such file or directory"},
      {command({"/"}), "/: execve: Permission denied"},
      {command({tree / "script"}), tree / "script" + ": execve: Exec format error"},
      {nowhere, "true: working folder: No such file or directory"},
      {command({"true"}, {{3, 4000}}), "true: passing a descriptor: Bad file descriptor"}};
  for (const auto& [options, failure] : cases) EXPECT_EQ(Started(options).failure, failure);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1) << "a child that failed to start is reaped";

  EXPECT_THROW(Child::start(ChildOptions(), nullptr), std::invalid_argument);
  const std::vector<ChildOptions::Passed> wrong[] = {{{2, 1}}, {{256, 1}}, {{3, 1}, {3, 2}}};
  for (const auto& descriptors : wrong)
    EXPECT_THROW(Child::start(command({"true"}, descriptors), nullptr), std::invalid_argument);
}

TEST(Child, EndsOnceByExitOrBySignal) {
  EXPECT_EQ(Started(script("kill -TERM $$")).ends(), Lines{"signal 15 (Terminated)"});
  Started killed(script("exec sleep 1000"));
  EXPECT_TRUE(killed.child->kill(SIGKILL));
  EXPECT_EQ(killed.ends(), Lines{"signal 9 (Killed)"});
  // Even where the kernel reaps by itself.
  const auto oldHandler = std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(Started(script("exit 3")).ends(), Lines{"unknown"});
  std::signal(SIGCHLD, oldHandler);
}

TEST(Child, DeliversItsStandardErrorInLinesOfBoundedLength) {
  const std::string most(Child::kMaxLine, 'x');
  Started run(
      script("echo one; echo; echo two >&2; printf '%08192d\\n' 0 | tr 0 x; printf '%04095d\\n' 0 | tr 0 x;"
             "printf end; exec 1>&- 2>&-; exit 5"));
  EXPECT_EQ(run.ends(), Lines{"exit code 5"});
  EXPECT_EQ(run.lines(), (Lines{"one", "", "two", most, most, most.substr(1), "end"}));
}

TEST(Identity, IsThatOfTheProcess) {
  EXPECT_EQ(Identity::current().realUser, getuid());
  EXPECT_EQ(Identity::current().effectiveUser, geteuid());
  EXPECT_EQ(homeFolderOf(0), "/root");
  EXPECT_EQ(homeFolderOf(4'000'000'000), "");
  EXPECT_EQ(Identity::current().homeFolder, homeFolderOf(getuid()));
}

}  // namespace
}  // namespace larkspan::platform
