#pragma once

#include "larkspan/platform/archive/Archivable.h"

#include <cstdint>
#include <memory>

namespace larkspan::platform {

class Connection;
class ExportedObject;

/// An object that one process passes to another by proxy, as an argument that `Interface::setInterface` declares so: the
/// peer calls it over a channel of its own. Tag 27, ["Proxy", {"channel": number}].
/// Owner:  where it is passed from, the connection keeps the object until the peer has dropped what it got, or has gone.
///         Where it arrives, that is as long as somebody holds `connection()`. An object that holds the connection which
///         it is passed over keeps both alive.
/// Thread: any. Calls run on the delivery queue of the connection that it was passed over.
/// Limits: only the side that made the connection passes objects.
class PassedObject final : public Archivable {
 public:
  /// For one argument of one call.
  static std::shared_ptr<PassedObject> make(std::shared_ptr<ExportedObject> object);

  /// Where it arrived, the way to the object; else null.
  const std::shared_ptr<Connection>& connection() const { return connection_; }

  static const ObjectClass& archiveClass();
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override;

 private:
  friend class Connection;
  PassedObject() = default;
  static std::shared_ptr<Object> initWithCoder(KeyedUnarchiver& coder);

  std::shared_ptr<ExportedObject> object_;
  std::shared_ptr<Connection> connection_;
  uint32_t channel_ = 0;
};

}  // namespace larkspan::platform
