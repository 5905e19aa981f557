#pragma once

#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace larkspan::tests {

/// What a program said and how it ended.
struct Outcome {
  int status = -1;  ///< Of wait(2).
  std::string output, error;

  /// -1 when a signal ended it.
  int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
};

/// The command, installed below a folder of its own with extensions beside it.
class Program {
 public:
  Program() {
    namespace fs = std::filesystem;
    fs::create_directories(tree_.path("bin"));
    fs::copy_file(LARKSPAN_TEST_BIN "/larkspan", tree_.path("bin/larkspan"));
    mkfifo(fifo().c_str(), 0600);
  }

  /// Installs an extension that behaves so (fixtures/fixture_extension.cpp).
  void add(const std::string& identifier, const std::string& behaviour) {
    tree_.add(
        "share/larkspan/extensions/" + identifier + ".extension", "The " + behaviour,
        LARKSPAN_TEST_BIN "/fixtures/fixture_extension " + behaviour + ' ' + tree_.path(identifier + ".pid"));
  }
  /// Runs the command to its end.
  Outcome run(const std::vector<std::string>& arguments, const std::string& input = "") {
    start(arguments, input);
    return finish();
  }

  /// `under` are the words of a program that runs the command. Standard error may be a terminal.
  void start(const std::vector<std::string>& arguments, const std::string& input = "",
             const std::vector<std::string>& under = {}, bool onTerminal = false) {
    const std::string none = tree_.path("none");
    std::vector<std::string> words{"/usr/bin/env",          "-i",     "LARKSPAN_LOG=none",
                                   "XDG_DATA_HOME=" + none, "TZ=UTC", "XDG_DATA_DIRS=" + none};
    words.insert(words.end(), under.begin(), under.end());
    words.push_back(tree_.path("bin/larkspan"));
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    int output[2], error[2];
    ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
    ASSERT_EQ(onTerminal ? openpty(&error[0], &error[1], nullptr, nullptr, nullptr) : pipe2(error, O_CLOEXEC),
              0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, tree_.write("input", input).c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    posix_spawn_file_actions_adddup2(&actions, error[1], 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    ASSERT_EQ(posix_spawn(&process_, pointers[0], &actions, nullptr, pointers.data(), nullptr), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    close(error[1]);
    output_ = output[0];
    error_ = error[0];
  }
  pid_t process() const { return process_; }
  void closeOutput() { close(std::exchange(output_, -1)); }
  /// Returns once the command has said this much on standard output (else standard error), or has ended.
  void awaitText(std::string_view text, bool onOutput) {
    int& descriptor = onOutput ? output_ : error_;
    std::string& said = onOutput ? outcome_.output : outcome_.error;
    while (descriptor >= 0 && said.find(text) == said.npos) read(descriptor, said);
  }
  Outcome finish() {
    while (output_ >= 0 || error_ >= 0) {
      pollfd ready[] = {{output_, POLLIN, 0}, {error_, POLLIN, 0}};
      poll(ready, 2, -1);
      if (ready[0].revents) read(output_, outcome_.output);
      if (ready[1].revents) read(error_, outcome_.error);
    }
    waitpid(process_, &outcome_.status, 0);
    return std::exchange(outcome_, {});
  }

  /// The process of an extension once it runs.
  pid_t extension(const std::string& identifier) {
    pid_t process = 0;
    // Written under another name first: what is there is complete. A command that ends early ends the wait.
    for (siginfo_t ended{};
         ended.si_pid == 0 && !(std::ifstream(tree_.path(identifier + ".pid")) >> process);) {
      sched_yield();
      waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
    return process;
  }
  /// Whether the process of an extension that was started has ended.
  bool isGone(const std::string& identifier) {
    std::ifstream file(tree_.path(identifier + ".pid"));
    pid_t process = 0;
    if (!(file >> process)) ADD_FAILURE() << identifier << " never ran";
    std::filesystem::remove(tree_.path(identifier + ".pid"));
    std::string number, name, state;
    std::ifstream status("/proc/" + std::to_string(process) + "/stat");
    // A zombie waits for whoever inherited it.
    return !(status >> number >> name >> state) || state == "Z";
  }
  std::string fifo() const { return tree_.path("fifo"); }
  const ManifestTree& tree() const { return tree_; }

 private:
  void read(int& descriptor, std::string& text) {
    char buffer[65536];
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else {
      close(std::exchange(descriptor, -1));
    }
  }

  ManifestTree tree_;
  pid_t process_ = -1;
  int output_ = -1, error_ = -1;
  Outcome outcome_;
};

}  // namespace larkspan::tests
