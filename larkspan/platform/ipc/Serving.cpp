#include "larkspan/platform/ipc/Serving.h"

#include <mutex>
#include <unordered_map>
#include <utility>

namespace larkspan::platform {

namespace {

/// Refers to its transport and the other way round, until that closes.
struct Served {
  struct Open {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<void> kept;
  };
  std::mutex mutex;
  std::shared_ptr<Transport> transport;
  std::unordered_map<uint32_t, Open> open;
};

}  // namespace

void serve(Descriptor socket, std::string name, Acceptor accept, std::function<void()> onClose) {
  const auto served = std::make_shared<Served>();
  Transport::Handlers handlers;
  handlers.onOpen = [served, accept = std::move(accept)](uint32_t channel) {
    std::unique_lock lock(served->mutex);
    auto connection = Connection::accept(served->transport, channel);
    lock.unlock();
    auto kept = accept(connection);
    lock.lock();
    served->open[channel] = {connection, std::move(kept)};
    lock.unlock();
    connection->setInvalidationHandler([served, channel] {
      std::unordered_map<uint32_t, Served::Open>::node_type ended;
      const std::lock_guard guard(served->mutex);
      ended = served->open.extract(channel);
    });
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
