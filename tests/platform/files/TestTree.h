#pragma once

#include "larkspan/platform/base/URL.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::platform {

/// What a shell command prints.
inline std::string shell(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "re");
  char buffer[4096];
  while (const std::size_t size = ::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, size);
  EXPECT_EQ(0, ::pclose(pipe)) << command;
  return output;
}

/// A temporary folder whose content goes with it.
class TestTree {
 public:
  /// In /dev/shm, where many entries cost little, rather than on a disk.
  static constexpr const char* kInMemory = "/dev/shm/larkspan-test-XXXXXX";

  explicit TestTree(const char* path = "/tmp/larkspan-test-XXXXXX") : path_(path) {
    EXPECT_NE(nullptr, ::mkdtemp(path_.data()));
  }
  TestTree(const TestTree&) = delete;
  ~TestTree() {
    if (!volume_.empty()) ::umount2(volume_.c_str(), MNT_DETACH);
    platform::shell("rm -rf " + path_);
  }

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  URL url(const std::string& name = {}) const { return URL::file(name.empty() ? path_ : *this / name); }

  void folder(const std::string& name) const { ASSERT_EQ(0, ::mkdir((*this / name).c_str(), 0755)) << name; }
  void file(const std::string& name, const std::string& content = "x") const {
    ASSERT_TRUE(std::ofstream(*this / name) << content) << name;
  }
  /// Bytes of disk that an entry itself takes.
  int64_t allocated(const std::string& name) const {
    struct stat facts {};
    EXPECT_EQ(0, ::lstat((*this / name).c_str(), &facts)) << name;
    return facts.st_blocks * 512;
  }
  bool has(const std::string& name) const { return ::access((*this / name).c_str(), F_OK) == 0; }
  void link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(0, ::symlink(target.c_str(), (*this / name).c_str())) << name;
  }
  /// What a shell command in it prints.
  std::string shell(const std::string& command) const {
    return platform::shell("cd " + path_ + " && set -e && " + command);
  }
  /// The names in it, or one of its folders, and beneath, sorted, one after another.
  std::string list(const std::string& folder = ".") const {
    return shell("cd " + folder + "; find . -mindepth 1 | sort | tr '\\n' ' '");
  }
  /// Mounts a volume with a file on a folder that is there or is made; false without the privilege.
  bool mountVolume(const std::string& name = "mount") {
    volume_ = *this / name;
    ::mkdir(volume_.c_str(), 0755);
    if (::mount("none", volume_.c_str(), "tmpfs", 0, "size=1m") != 0) return false;
    file(name + "/inside", std::string(100000, 'x'));
    return true;
  }
  /// Nests `levels` folders "d", with a file in the lowest.
  void chain(int levels) const {
    int at = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < levels; ++i) {
      ASSERT_EQ(0, ::mkdirat(at, "d", 0755));
      const int next = ::openat(at, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      ::close(std::exchange(at, next));
    }
    ASSERT_EQ(0, ::mknodat(at, "lowest", S_IFREG | 0644, 0));
    ::close(at);
  }

 private:
  std::string path_, volume_;
};

/// Keeps the process from opening descriptors from that number on, for as long as it lives.
struct DescriptorLimit {
  explicit DescriptorLimit(rlim_t first) {
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit low{first, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before); }
  rlimit before{};
};

/// Runs `body` on a thread with a stack of 64 KiB while the process may have 64 descriptors.
template <typename F>
void runStarved(F body) {
  const DescriptorLimit scarce(64);
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, 64 * 1024);
  pthread_t thread;
  const auto run = [](void* argument) -> void* { return (*static_cast<F*>(argument))(), nullptr; };
  EXPECT_EQ(0, ::pthread_create(&thread, &attributes, run, &body));
  ::pthread_join(thread, nullptr);
  ::pthread_attr_destroy(&attributes);
}

}  // namespace larkspan::platform
