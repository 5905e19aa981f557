#include "larkspan/platform/ipc/Serving.h"

#include <mutex>
#include <utility>

namespace larkspan::platform {

namespace {

/// Refers to its transport and the other way round, until that closes.
struct Served {
  std::mutex mutex;
  std::shared_ptr<Transport> transport;
};

}  // namespace

void serve(Descriptor socket, std::string name, Acceptor accept, std::function<void()> onClose) {
  const auto served = std::make_shared<Served>();
  Transport::Handlers handlers;
  handlers.onOpen = [served, accept = std::move(accept)](uint32_t channel) {
    std::unique_lock lock(served->mutex);
    auto connection = Connection::accept(served->transport, channel);
    lock.unlock();
    connection->keepUntilEnd(accept(connection));
    return connection;
  };
  handlers.onClose = [served, onClose = std::move(onClose)](const Error&) {
    std::shared_ptr<Transport> transport;
    {
      const std::lock_guard lock(served->mutex);
      transport.swap(served->transport);
    }
    if (onClose) onClose();
  };
  // The handlers wait for it, and so find the transport.
  const std::lock_guard lock(served->mutex);
  served->transport = Transport::make(std::move(socket), std::move(name), std::move(handlers));
}

}  // namespace larkspan::platform
