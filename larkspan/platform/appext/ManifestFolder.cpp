#include "larkspan/platform/appext/ManifestFolder.h"

#include "larkspan/platform/appext/ExtensionLog.h"
#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/process/TrustedFile.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>

namespace larkspan::platform {
namespace {

/// Time stamps of files advance in steps of up to 10 ms: a file that changed less than this before it was
/// read may change once more and keep its time stamp.
constexpr std::chrono::milliseconds kStampStep{50};

int64_t nanoseconds(const timespec& time) { return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec; }

}  // namespace

ManifestFolder::Version ManifestFolder::versionOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
          nanoseconds(status.st_ctim)};
}

int ManifestFolder::look(const std::function<void(const std::string& path)>& onLink) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path_.c_str()), closedir);
  struct stat status;
  if (!folder || fstat(dirfd(folder.get()), &status) != 0) {
    if (isShortage(errno)) return errno;
    refuse(errno == ENOENT ? "" : std::strerror(errno));
    return 0;
  }
  if (auto reason = reasonForDistrust(status)) {
    refuse(std::move(*reason));
    return 0;
  }
  refusal_.clear();

  ++round_;
  int failure = 0;
  const dirent* entry;
  for (errno = 0; (entry = readdir(folder.get())); errno = 0) {
    const std::string name = entry->d_name;
    if (!name.ends_with(".extension")) continue;
    if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) onLink(path_ + '/' + name);
    if (const int errorNumber = update(dirfd(folder.get()), name)) failure = errorNumber;
  }
  if (errno != 0) return errno;
  std::erase_if(files_, [&](const auto& file) { return file.second.seen != round_; });
  return failure;
}

void ManifestFolder::refuse(std::string reason) {
  files_.clear();
  if (!reason.empty() && reason != refusal_) {
    extensionLog().write(LogLevel::standard,
                         format("Skipped extension folder %@: %@", repairedUtf8(path_), reason));
  }
  refusal_ = std::move(reason);
}

int ManifestFolder::update(int folder, const std::string& name) {
  struct stat status {};
  const bool isThere = fstatat(folder, name.c_str(), &status, 0) == 0;
  if (!isThere && fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return 0;  // Gone meanwhile.
  const Version version = versionOf(status);
  const auto [found, isNew] = files_.try_emplace(name);
  File& file = found->second;
  file.seen = round_;
  if (!isNew && file.isSettled && file.version == version) return 0;

  const WallTime now = Clock::current().wallNow();
  auto content = readManifest(path_ + '/' + name);
  if (const auto* shortage = std::get_if<Shortage>(&content)) {
    if (isNew) files_.erase(found);
    return shortage->errorNumber;
  }
  file.manifest.reset();
  if (auto* manifest = std::get_if<Manifest>(&content)) file.manifest = std::move(*manifest);
  const auto* reason = std::get_if<std::string>(&content);
  if (reason && (isNew || file.version != version || file.refusal != *reason)) {
    extensionLog().write(LogLevel::standard, format("Skipped extension manifest %@: %@",
                                                    repairedUtf8(path_ + '/' + name), *reason));
  }
  file.refusal = reason ? *reason : "";
  file.version = version;
  file.isSettled = std::chrono::nanoseconds(version.changed) + kStampStep < now;
  return 0;
}

void ManifestFolder::forEach(const std::function<void(const Manifest&)>& take) const {
  for (const auto& [name, file] : files_) {
    if (file.manifest) take(*file.manifest);
  }
}

}  // namespace larkspan::platform
