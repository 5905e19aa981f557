#pragma once

#include "larkspan/platform/ipc/Connection.h"

#include <string>

#include <sys/types.h>

namespace larkspan::platform {

/// Where a service finds the socket at which it listens, as sd_listen_fds(3) describes: LISTEN_FDS is 1, and LISTEN_PID the
/// service's own process.
inline constexpr int kServiceDescriptor = 3;

/// Finds the service of that name which serves this process's user, for `Connection::make`. When nobody listens it is
/// started from its service file (ServiceFile.h): a process of its own, which outlives this one, without a terminal, in the
/// folder "/", and with nothing open but its socket. One that ends before it greets anybody counts as a failed start; after five within
/// three minutes this process starts no more until the oldest lies as long back.
/// A name is an identifier as an extension's; another throws std::invalid_argument.
/// Thread: any; reaching and starting run on a worker.
/// Failure: the connection's errors. A connection that is never greeted waits until it is invalidated.
Connection::Connector serviceConnector(std::string name);

/// The same for the service that serves another user, whose folder and processes are not this process's business: it is never
/// started. For root.
Connection::Connector serviceConnector(std::string name, uid_t user);

}  // namespace larkspan::platform
