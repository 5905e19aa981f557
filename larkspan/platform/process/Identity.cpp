#include "larkspan/platform/process/Identity.h"

#include <mutex>
#include <utility>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

struct Kept {
  std::mutex mutex;
  std::optional<Identity> identity;
};

Kept& kept() {
  static Kept* instance = new Kept;
  return *instance;
}

std::optional<Identity> exchangeKept(std::optional<Identity> identity) {
  std::lock_guard lock(kept().mutex);
  return std::exchange(kept().identity, std::move(identity));
}

}  // namespace

Identity Identity::current() {
  std::lock_guard lock(kept().mutex);
  if (!kept().identity) kept().identity = Identity{getuid(), geteuid(), homeFolderOf(getuid())};
  return *kept().identity;
}

ScopedIdentity::ScopedIdentity(Identity identity) : previous_(exchangeKept(std::move(identity))) {}

ScopedIdentity::~ScopedIdentity() { exchangeKept(std::move(previous_)); }

namespace {

/// `read` is one of getpwuid_r(3) and its like, but for the key.
template <typename Read>
std::string homeFolder(Read read) {
  constexpr std::size_t kMaxEntry = 1 << 20;
  for (std::vector<char> buffer(1024); buffer.size() <= kMaxEntry; buffer.resize(buffer.size() * 4)) {
    passwd entry{};
    passwd* found = nullptr;
    const int status = read(&entry, buffer.data(), buffer.size(), &found);
    if (status == 0) return found ? found->pw_dir : "";
    if (status != ERANGE) break;
  }
  return {};
}

}  // namespace

std::string homeFolderOf(uid_t user) {
  return homeFolder([user](auto... rest) { return getpwuid_r(user, rest...); });
}

std::string homeFolderOf(const std::string& name) {
  return homeFolder([&name](auto... rest) { return getpwnam_r(name.c_str(), rest...); });
}

}  // namespace larkspan::platform
