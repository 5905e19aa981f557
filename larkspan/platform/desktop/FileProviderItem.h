#pragma once

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/base/URL.h"

#include <memory>
#include <optional>
#include <string>

namespace larkspan::platform {

/// A file that a provider (a cloud folder, a phone) looks after: its identifier there, and where it lies on
/// this machine if it does.
/// Owner:  std::shared_ptr; immutable.
/// Thread: any.
class FileProviderItem final : public Archivable {
 public:
  static std::shared_ptr<FileProviderItem> make(std::string identifier, std::optional<URL> fileURL);

  const std::string& identifier() const { return identifier_; }
  const std::optional<URL>& fileURL() const { return fileURL_; }

  static const ObjectClass& archiveClass();
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  static std::shared_ptr<Object> initWithCoder(KeyedUnarchiver& coder);

 private:
  FileProviderItem(std::string identifier, std::optional<URL> fileURL)
      : identifier_(std::move(identifier)), fileURL_(std::move(fileURL)) {}

  const std::string identifier_;
  const std::optional<URL> fileURL_;
};

}  // namespace larkspan::platform
