#pragma once

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/SecurityScopedURLWrapper.h"
#include "larkspan/platform/base/URL.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace larkspan {

/// Says where a host finds an icon, since images themselves do not travel: a named image, a file or bundle,
/// or an application's identifier. Making an image of it is the host's business. Nothing is validated: a host
/// must tolerate absent fields and unknown types.
/// Owner:  std::shared_ptr.
/// Thread: the two fields may be read and set from different threads.
class LKSIconConstructor final : public platform::Archivable {
 public:
  /// Part of the archive format.
  enum Type : int64_t {
    LKSIconConstructorTypeImageName = 0,
    LKSIconConstructorTypeURL = 1,
    LKSIconConstructorTypeBundleID = 2,
  };

  static std::shared_ptr<LKSIconConstructor> initWithImageNamed(std::optional<std::string> name);
  static std::shared_ptr<LKSIconConstructor> initWithBundleID(std::optional<std::string> identifier);
  /// Wraps the URL for reading only.
  static std::shared_ptr<LKSIconConstructor> initWithURL(std::optional<platform::URL> url);

  /// One of `Type`, or whatever number an archive held.
  int64_t type() const { return type_; }
  /// The image name or the identifier.
  std::optional<std::string> string() const;
  void setString(std::optional<std::string> string);
  std::shared_ptr<platform::SecurityScopedURLWrapper> fileURLWrapper() const;
  void setFileURLWrapper(std::shared_ptr<platform::SecurityScopedURLWrapper> wrapper);

  static bool supportsSecureCoding() { return true; }
  static const platform::ObjectClass& archiveClass();
  const platform::ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(platform::KeyedArchiver& coder) const override;
  static std::shared_ptr<platform::Object> initWithCoder(platform::KeyedUnarchiver& coder);

  /// "<LKSIconConstructor ADDRESS - type: N - string: S - url: U>".
  std::string description() const override;

 private:
  explicit LKSIconConstructor(int64_t type) : type_(type) {}

  const int64_t type_;
  mutable std::mutex mutex_;
  std::optional<std::string> string_;
  std::shared_ptr<platform::SecurityScopedURLWrapper> fileURLWrapper_;
};

}  // namespace larkspan
