#pragma once

#include "larkspan/platform/base/Error.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// How a process ended.
struct ExitStatus {
  enum class Kind {
    exited,     ///< `value` is its exit code.
    signalled,  ///< `value` is the signal that ended it.
    unknown,    ///< Somebody else reaped it: this process ignores SIGCHLD, or waits for any child.
  };
  Kind kind;
  int value;

  /// "exit code 3", "signal 9 (Killed)", "unknown".
  std::string description() const;
  friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
};

/// What to start and how.
struct ChildOptions {
  /// Gets the child's standard error line by line, without line ends.
  using LineHandler = std::function<void(std::string_view line)>;

  /// A descriptor of this process, borrowed until `start` returns, and the number it has in the child.
  struct Passed {
    int number;
    int source;
  };

  /// The program, looked up in PATH unless it holds a slash, and its arguments.
  std::vector<std::string> arguments;
  /// "NAME=VALUE"; nothing inherits this process's environment.
  std::optional<std::vector<std::string>> environment;
  /// Empty inherits this process's.
  std::string workingFolder;
  /// Numbers from 3 to 255.
  std::vector<Passed> descriptors;
  /// None inherits standard error.
  LineHandler standardErrorLine;
  /// Without a handler standard error goes to /dev/null instead.
  bool isSilent = false;
  /// The signal that the child gets when this process ends, whatever ends it; 0 for none (PR_SET_PDEATHSIG).
  int parentDeathSignal = 0;
  /// Leaves this process's session (setsid(2)), so that what is typed at its terminal does not reach the child.
  bool ownSession = false;
  /// The variable in which the child finds its own process identifier, in decimal; empty for none.
  std::string processIdVariable;
};

/// This process's environment with these variables, in place of what it has under their names; those with no value it lacks.
/// Thread: any, as long as none changes the environment.
std::vector<std::string> environmentWith(
    const std::vector<std::pair<std::string, std::optional<std::string>>>& variables);

/// A process that this one started. Its standard input is /dev/null, its standard output goes to its standard
/// error, it has no other descriptor than those passed, every signal has its default action and none is
/// blocked. It is reaped through its pidfd as soon as it ends, whether anybody holds this object or not; no
/// SIGCHLD handler is installed.
/// Owner:   the caller; dropping it does not end the process.
/// Thread:  any; handlers run on the input/output thread and must not block.
/// Failure: starting gives an error that names the step; the exit handler is called once for every child that
///          started.
/// Limits:  Linux 5.9 or later; a line of standard error longer than 4096 bytes comes in pieces, and more
///          than 64 KiB in 50 ms hold the child up.
class Child {
 public:
  using ExitHandler = std::function<void(ExitStatus)>;
  static constexpr std::size_t kMaxLine = 4096;

  /// Returns once the program runs in the child. The last lines of standard error come before the exit; what
  /// a grandchild writes after it is lost. Throws std::invalid_argument where the options make no sense.
  static std::variant<std::shared_ptr<Child>, Error> start(const ChildOptions& options, ExitHandler onExit);

  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Never reaches another process that got the same id. False when the child has ended.
  bool kill(int signal);

 private:
  class Process;
  explicit Child(std::shared_ptr<Process> process);
  const std::shared_ptr<Process> process_;
};

}  // namespace larkspan::platform
