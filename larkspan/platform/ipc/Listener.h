#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/ipc/Connection.h"
#include "larkspan/platform/ipc/Peer.h"

#include <functional>
#include <memory>
#include <string>
#include <variant>

namespace larkspan::platform {

/// A named service's end: takes the connections of clients, which are processes of its own user and of root; others are
/// refused with a line in the log.
/// Owner:  the caller. When it ends nobody connects any more, and the next client starts the service again. Clients that
///         are in stay, and may make further connections: the handler lives as long as the last of them.
/// Thread: any.
/// Limits: `limits::kMaximumClients` at a time; more wait until one of them goes.
class Listener {
 public:
  /// Sets up a new connection; what it returns, mostly the exported object, is kept until that has ended. On the delivery
  /// queue of the client, for several clients at the same time.
  using Handler =
      std::function<std::shared_ptr<void>(const std::shared_ptr<Connection>& connection, const Peer& peer)>;

  /// Listens under that name: at the socket which the process that started this one has left at `kServiceDescriptor`, the
  /// first time whatever the name is, and else at one of its own making. An error when another process serves under that name (EADDRINUSE), or
  /// the folder of sockets cannot be used. Another name than an identifier throws std::invalid_argument.
  static std::variant<std::shared_ptr<Listener>, Error> make(const std::string& name, Handler handler);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  class Accepting;
  explicit Listener(std::shared_ptr<Accepting> accepting);
  const std::shared_ptr<Accepting> accepting_;
};

}  // namespace larkspan::platform
