#pragma once

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/base/URL.h"

#include <memory>

namespace larkspan::platform {

/// A file URL that travels with a statement of what it may be used for. On Linux access is a matter of the
/// file's permissions, so the flag informs and does not enforce.
/// Owner:  std::shared_ptr; immutable.
/// Thread: any.
class SecurityScopedURLWrapper final : public Archivable {
 public:
  static std::shared_ptr<SecurityScopedURLWrapper> initWithURL(URL url, bool readonly);

  const URL& url() const { return url_; }
  bool isReadonly() const { return readonly_; }

  static const ObjectClass& archiveClass();
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  static std::shared_ptr<Object> initWithCoder(KeyedUnarchiver& coder);

 private:
  SecurityScopedURLWrapper(URL url, bool readonly) : url_(std::move(url)), readonly_(readonly) {}

  const URL url_;
  const bool readonly_;
};

}  // namespace larkspan::platform
