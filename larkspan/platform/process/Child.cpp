#include "larkspan/platform/process/Child.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/process/Spawner.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace larkspan::platform {
namespace {

constexpr int kMaxPassedNumber = 255;

/// What is read of a child's lines at once, and the time until more is read: stops one that prints without
/// end from keeping the input/output thread busy. It is the child that waits, in its full pipe.
constexpr std::size_t kLinesAtOnce = 64 * 1024;
constexpr std::chrono::milliseconds kLinesPause{50};
/// More than a pipe can hold.
constexpr std::size_t kLastLines = std::size_t{1} << 20;

void requireSense(const ChildOptions& options) {
  if (options.arguments.empty()) throw std::invalid_argument("a child needs a program");
  bool seen[kMaxPassedNumber + 1] = {};
  for (const auto& [number, source] : options.descriptors) {
    if (number < 3 || number > kMaxPassedNumber || std::exchange(seen[number], true)) {
      throw std::invalid_argument("a child's descriptors have different numbers from 3 to 255");
    }
  }
}

/// The path of a program that execve(2) is to run; empty when no folder of PATH has it.
std::string programPath(const std::string& name) {
  if (name.find('/') != name.npos) return name;
  const char* path = std::getenv("PATH");
  std::string_view folders = path ? path : "/usr/local/bin:/usr/bin:/bin";
  while (!folders.empty()) {
    const std::string_view folder = folders.substr(0, folders.find(':'));
    folders.remove_prefix(std::min(folder.size() + 1, folders.size()));
    std::string candidate = std::string(folder.empty() ? "." : folder) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

Spawned spawnWith(const ChildOptions& options, const std::string& program, int standardError) {
  const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null) return {-1, {}, errno, "/dev/null"};
  if ((options.isSilent && !options.standardErrorLine) || fcntl(standardError, F_GETFD) < 0)
    standardError = null.get();

  std::vector<SpawnPlan::Passed> passed{{0, null.get(), -1}, {1, standardError, -1}, {2, standardError, -1}};
  for (const auto& [number, source] : options.descriptors) passed.push_back({number, source, -1});

  std::vector<std::string> arguments = options.arguments;
  std::vector<std::string> environment = options.environment ? *options.environment : environmentWith({});
  char* processId = nullptr;
  if (!options.processIdVariable.empty()) {
    std::string& variable = environment.emplace_back(options.processIdVariable + '=');
    const std::size_t end = variable.size();
    variable.resize(end + SpawnPlan::kProcessIdSize);
    processId = variable.data() + end;
  }
  return spawn({program.c_str(), pointers(arguments).data(), pointers(environment).data(),
                options.workingFolder.empty() ? nullptr : options.workingFolder.c_str(), passed.data(),
                static_cast<int>(passed.size()), options.parentDeathSignal, options.ownSession, processId});
}

ExitStatus reap(int handle, int flags) {
  siginfo_t info{};
  while (waitid(P_PIDFD, static_cast<id_t>(handle), &info, WEXITED | flags) != 0) {
    if (errno != EINTR) return {ExitStatus::Kind::unknown, 0};
  }
  return {info.si_code == CLD_EXITED ? ExitStatus::Kind::exited : ExitStatus::Kind::signalled,
          info.si_status};
}

/// Cuts what comes through a pipe into lines.
class LineReader {
 public:
  LineReader(Descriptor pipe, ChildOptions::LineHandler handler)
      : pipe_(std::move(pipe)), handler_(std::move(handler)) {}

  int descriptor() const { return pipe_.get(); }

  /// Reads what is there now, or about `limit` bytes of it; false once the other end is closed.
  bool read(std::size_t limit) {
    for (std::size_t total = 0; total < limit;) {
      char bytes[Child::kMaxLine];
      const ssize_t count = ::read(pipe_.get(), bytes, sizeof bytes);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return count < 0 && errno == EAGAIN;
      take({bytes, static_cast<std::size_t>(count)});
      total += static_cast<std::size_t>(count);
    }
    return true;
  }

  /// Delivers a last line that has no line end.
  void finish() {
    if (!line_.empty()) handler_(std::exchange(line_, {}));
  }

 private:
  void take(std::string_view bytes) {
    while (!bytes.empty()) {
      const std::string_view part =
          bytes.substr(0, std::min(bytes.find('\n'), Child::kMaxLine - line_.size()));
      line_ += part;
      bytes.remove_prefix(part.size());
      if (bytes.empty()) return;
      // A line end, or more of a line that is full.
      if (bytes.front() == '\n') bytes.remove_prefix(1);
      handler_(line_);
      line_.clear();
    }
  }

  Descriptor pipe_;
  const ChildOptions::LineHandler handler_;
  std::string line_;
};

}  // namespace

std::vector<std::string> environmentWith(
    const std::vector<std::pair<std::string, std::optional<std::string>>>& variables) {
  std::vector<std::string> result;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view name = std::string_view(*entry).substr(0, std::string_view(*entry).find('='));
    if (std::none_of(variables.begin(), variables.end(), [&](const auto& v) { return v.first == name; }))
      result.emplace_back(*entry);
  }
  for (const auto& [name, value] : variables) {
    if (value) result.push_back(name + '=' + *value);
  }
  return result;
}

std::string ExitStatus::description() const {
  switch (kind) {
    case Kind::exited:
      return "exit code " + std::to_string(value);
    case Kind::signalled:
      return "signal " + std::to_string(value) + " (" + strsignal(value) + ")";
    case Kind::unknown:
      break;
  }
  return "unknown";
}

/// The running process; its sources hold it until it has ended.
class Child::Process : public std::enable_shared_from_this<Child::Process> {
 public:
  Process(Spawned spawned, ExitHandler onExit, std::unique_ptr<LineReader> lines)
      : handle_(std::move(spawned.handle)), onExit_(std::move(onExit)), lines_(std::move(lines)) {}

  /// False, with errno set, where the descriptors cannot be watched; the child is then ended and reaped.
  bool watch() {
    // The handlers wait for this lock, and so find both sources in place.
    std::lock_guard lock(mutex_);
    if (lines_) {
      lineSource_ = IoSource::make(lines_->descriptor(), EPOLLIN,
                                   [self = shared_from_this()](uint32_t) { self->readLines(); });
    }
    if (!lines_ || lineSource_) {
      exitSource_ =
          IoSource::make(handle_.get(), EPOLLIN, [self = shared_from_this()](uint32_t) { self->ended(); });
    }
    if (exitSource_) return true;
    const int reason = errno;
    status_ = ExitStatus{ExitStatus::Kind::signalled, SIGKILL};
    syscall(SYS_pidfd_send_signal, handle_.get(), SIGKILL, nullptr, 0);
    reap(handle_.get(), 0);
    errno = reason;
    return false;
  }

  void unwatchLines() {
    std::shared_ptr<IoSource> source;
    {
      std::lock_guard lock(mutex_);
      source = std::move(lineSource_);
    }
    if (source) source->cancel();
  }

  bool kill(int signal) {
    std::lock_guard lock(mutex_);
    return !status_ && syscall(SYS_pidfd_send_signal, handle_.get(), signal, nullptr, 0) == 0;
  }

 private:
  void readLines() {
    if (lines_->read(kLinesAtOnce)) return IoSource::pause(kLinesPause);
    unwatchLines();
  }

  void ended() {
    const std::shared_ptr<Process> self = shared_from_this();
    std::shared_ptr<IoSource> exitSource;
    {
      std::lock_guard lock(mutex_);
      status_ = reap(handle_.get(), WNOHANG);
      exitSource = std::move(exitSource_);
    }
    exitSource->cancel();
    unwatchLines();
    handle_.reset();
    if (lines_) {
      lines_->read(kLastLines);
      lines_->finish();
      lines_.reset();
    }
    const ExitHandler onExit = std::move(onExit_);
    if (onExit) onExit(*status_);
  }

  std::mutex mutex_;
  Descriptor handle_;                 // Closed by the input/output thread alone, once the status is known.
  std::optional<ExitStatus> status_;  // Written under the lock, by the input/output thread alone.
  std::shared_ptr<IoSource> exitSource_;
  std::shared_ptr<IoSource> lineSource_;
  ExitHandler onExit_;
  std::unique_ptr<LineReader> lines_;
};

std::variant<std::shared_ptr<Child>, Error> Child::start(const ChildOptions& options, ExitHandler onExit) {
  requireSense(options);
  const std::string& name = options.arguments.front();
  const std::string program = programPath(name);
  if (program.empty()) return Error::posix(ENOENT, name);

  int standardError = STDERR_FILENO;
  std::unique_ptr<LineReader> lines;
  Descriptor writeEnd;
  if (options.standardErrorLine) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return Error::posix(errno, name + ": pipe");
    writeEnd.reset(ends[1]);
    lines = std::make_unique<LineReader>(Descriptor(ends[0]), options.standardErrorLine);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    standardError = writeEnd.get();
  }

  Spawned spawned = spawnWith(options, program, standardError);
  writeEnd.reset();
  if (!spawned.handle) return Error::posix(spawned.errorNumber, name + ": " + spawned.failedStep);

  auto process = std::make_shared<Process>(std::move(spawned), std::move(onExit), std::move(lines));
  if (!process->watch()) {
    const int reason = errno;
    process->unwatchLines();
    return Error::posix(reason, name + ": watching the child");
  }
  return std::shared_ptr<Child>(new Child(std::move(process)));
}

Child::Child(std::shared_ptr<Process> process) : process_(std::move(process)) {}

Child::~Child() = default;

bool Child::kill(int signal) { return process_->kill(signal); }

}  // namespace larkspan::platform
