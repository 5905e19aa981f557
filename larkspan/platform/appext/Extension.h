#pragma once

#include "larkspan/platform/appext/ExtensionContext.h"
#include "larkspan/platform/appext/ExtensionItem.h"
#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/base/Object.h"
#include "larkspan/platform/base/UUID.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace larkspan::platform {

class ExtensionProcess;

/// An extension that matching found: its manifest, and the way to begin requests to its process.
/// Owner:  std::shared_ptr.
/// Thread: any; completions come on any thread, also the caller's.
class Extension : public Object {
 public:
  /// Makes the host's side of a new request.
  using ContextMaker = std::function<std::shared_ptr<ExtensionContext>(UUID, std::shared_ptr<Connection>)>;
  /// Either the identifier of the request or an error.
  using Begun = std::function<void(std::optional<UUID>, std::optional<Error>)>;

  explicit Extension(Manifest manifest);

  const std::string& identifier() const { return manifest_.identifier; }
  const Manifest& manifest() const { return manifest_; }
  /// What tells two extensions apart: the manifest's path.
  const std::string& extensionBundle() const { return manifest_.path; }
  /// "<Extension IDENTIFIER (MANIFEST)>".
  std::string description() const override;

  /// Begins a request without input items (only an empty list is of use), starting the extension if it does
  /// not run; calls back once. There is no limit on the time that a start may take.
  void beginExtensionRequestWithInputItems(const std::vector<std::shared_ptr<ExtensionItem>>& inputItems,
                                           ContextMaker makeContext, Begun completion);
  /// The context of a request that has begun and is still held by somebody.
  std::shared_ptr<ExtensionContext> extensionContextForUUID(const UUID& uuid) const;
  /// Ends the extension's process now, whatever it does: requests are interrupted, and fail while they begin.
  void endProcess();

 private:
  const Manifest manifest_;
  const std::shared_ptr<ExtensionProcess> process_;
  mutable std::mutex mutex_;
  std::map<UUID, std::weak_ptr<ExtensionContext>> contexts_;
};

}  // namespace larkspan::platform
