#pragma once

#include "tests/platform/files/TestTree.h"

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace larkspan::tests {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

/// Sets an environment variable, or takes it away, for as long as it lives.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* before = getenv(name)) before_ = before;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedVariable() { before_ ? setenv(name_, before_->c_str(), 1) : unsetenv(name_); }
  ScopedVariable(const ScopedVariable&) = delete;

 private:
  const char* const name_;
  std::optional<std::string> before_;
};

/// A temporary folder in which files are replaced and folders come into being as they are needed.
struct ManifestTree : platform::TestTree {
  const std::string& root = TestTree::path();

  std::string path(const std::string& below) const { return *this / below; }
  std::string write(const std::string& below, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(path(below)).parent_path());
    file(below, text);
    return path(below);
  }
  /// A sound manifest of a storage extension; nobody sees half of it.
  std::string add(const std::string& below, const std::string& name = "N", const std::string& exec = "x",
                  const char* more = "") const {
    const std::string identifier = std::filesystem::path(below).stem();
    const std::string file =
        write(below + '~', "[Extension]\nExtensionPoint=corvane.larkspan\nIdentifier=" + identifier +
                               "\nName=" + name + "\nExec=" + exec + '\n' + more);
    std::filesystem::rename(file, path(below));
    return path(below);
  }
};

}  // namespace larkspan::tests
