#include "larkspan/platform/appext/Extension.h"

#include "larkspan/platform/appext/ExtensionProcess.h"

namespace larkspan::platform {

Extension::Extension(Manifest manifest)
    : manifest_(std::move(manifest)), process_(ExtensionProcess::forManifest(manifest_)) {}

std::string Extension::description() const {
  return "<Extension " + manifest_.identifier + " (" + manifest_.path + ")>";
}

void Extension::beginExtensionRequestWithInputItems(const std::vector<std::shared_ptr<ExtensionItem>>&,
                                                    ContextMaker makeContext, Begun completion) {
  auto connection =
      Connection::make([process = process_](Connection::Connected connected) -> Connection::Abandon {
        process->transport(std::move(connected));
        return nullptr;
      });
  const UUID uuid = UUID::random();
  auto context = makeContext(uuid, connection);
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(contexts_, [](const auto& entry) { return entry.second.expired(); });
    contexts_.emplace(uuid, context);
  }
  connection->connect([uuid, context, completion = std::move(completion)](const std::optional<Error>& error) {
    if (error) return completion(std::nullopt, error);
    completion(uuid, std::nullopt);
  });
}

std::shared_ptr<ExtensionContext> Extension::extensionContextForUUID(const UUID& uuid) const {
  const std::lock_guard lock(mutex_);
  const auto found = contexts_.find(uuid);
  return found == contexts_.end() ? nullptr : found->second.lock();
}

void Extension::endProcess() { process_->end(); }

}  // namespace larkspan::platform
