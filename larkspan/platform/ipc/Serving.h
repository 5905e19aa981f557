#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/ipc/Connection.h"

#include <functional>
#include <memory>
#include <string>

namespace larkspan::platform {

/// Sets up this end of a connection that the peer has opened; what it returns, mostly the exported object, is kept until
/// that connection has ended. On the delivery queue.
using Acceptor = std::function<std::shared_ptr<void>(const std::shared_ptr<Connection>& connection)>;

/// Serves the peer at a connected stream socket until it goes away; `name` says in the log who it is. `onClose`, which may
/// be null, is called once after that, on the delivery queue.
/// Thread: any.
void serve(Descriptor socket, std::string name, Acceptor accept, std::function<void()> onClose);

}  // namespace larkspan::platform
