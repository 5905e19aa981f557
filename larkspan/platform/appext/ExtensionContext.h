#pragma once

#include "larkspan/platform/base/Object.h"
#include "larkspan/platform/base/UUID.h"
#include "larkspan/platform/ipc/Connection.h"

#include <memory>

namespace larkspan::platform {

/// One request between a host and an extension, as either side sees it: its identifier and its connection.
/// Owner:  std::shared_ptr; holds the connection.
/// Thread: any.
class ExtensionContext : public Object {
 public:
  ExtensionContext(UUID uuid, std::shared_ptr<Connection> connection)
      : uuid_(uuid), connection_(std::move(connection)) {}

  /// Known on this side only.
  const UUID& uuid() const { return uuid_; }
  const std::shared_ptr<Connection>& auxiliaryConnection() const { return connection_; }

 private:
  const UUID uuid_;
  const std::shared_ptr<Connection> connection_;
};

}  // namespace larkspan::platform
