#pragma once

#include "tests/support/ManifestTree.h"

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace larkspan::tests {

/// What a program said and how it ended.
struct Outcome {
  int status = -1;  ///< Of wait(2).
  std::string output, error;

  /// -1 when a signal ended it.
  int code() const;
};

/// The command, installed below a folder of its own with extensions beside it.
class Program {
 public:
  Program();

  /// Installs an extension that behaves so (fixtures/fixture_extension.cpp).
  void add(const std::string& identifier, const std::string& behaviour);
  /// Runs the command to its end.
  Outcome run(const std::vector<std::string>& arguments, const std::string& input = "");

  /// `under` are the words of a program that runs the command. Standard error may be a terminal.
  void start(const std::vector<std::string>& arguments, const std::string& input = "",
             const std::vector<std::string>& under = {}, bool onTerminal = false);
  pid_t process() const { return process_; }
  void closeOutput();
  /// Returns once the command has said this much on standard output (else standard error), or has ended.
  void awaitText(std::string_view text, bool onOutput);
  Outcome finish();

  /// The process of an extension once it runs.
  pid_t extension(const std::string& identifier);
  /// Whether the process of an extension that was started has ended.
  bool isGone(const std::string& identifier);
  std::string fifo() const { return tree_.path("fifo"); }
  const ManifestTree& tree() const { return tree_; }

 private:
  void read(int& descriptor, std::string& text);

  ManifestTree tree_;
  pid_t process_ = -1;
  int output_ = -1, error_ = -1;
  Outcome outcome_;
};

}  // namespace larkspan::tests
