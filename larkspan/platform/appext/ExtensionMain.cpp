#include "larkspan/platform/appext/ExtensionMain.h"

#include "larkspan/platform/appext/ExtensionLaunch.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/Transport.h"

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>

namespace larkspan::platform {

namespace {

bool isSocket(int descriptor) {
  int type = 0;
  socklen_t size = sizeof type;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

/// The requests under way; outlives `runExtension`, since tasks may still run while the process exits.
struct Requests {
  std::mutex mutex;
  std::shared_ptr<Transport> transport;
  std::map<uint32_t, std::shared_ptr<ExtensionContext>> contexts;
};

}  // namespace

std::string mainBundleIdentifier() {
  const char* identifier = ::getenv(kExtensionIdentifierVariable);
  return identifier ? identifier : ::program_invocation_short_name;
}

int runExtension(
    std::function<std::shared_ptr<ExtensionContext>(UUID, std::shared_ptr<Connection>)> makeContext) {
  if (!isSocket(kExtensionDescriptor)) {
    std::fprintf(stderr, "%s: this is a storage extension; it is started by a host such as larkspan\n",
                 ::program_invocation_short_name);
    return 2;
  }
  // Numbers keep their point.
  std::setlocale(LC_MESSAGES, "");
  std::setlocale(LC_CTYPE, "");
  ::signal(SIGPIPE, SIG_IGN);
  ::fcntl(kExtensionDescriptor, F_SETFD, FD_CLOEXEC);
#ifdef __GLIBC__
  // What a long answer took is not given back to the kernel, only to be faulted in again page by page for the next.
  // Ten thousand items that way take a fifth less time.
  constexpr int kKeptMemory = 4 << 20;
  ::mallopt(M_TRIM_THRESHOLD, kKeptMemory);
  ::mallopt(M_MMAP_THRESHOLD, kKeptMemory);
#endif

  static auto* const requests = new Requests;
  Transport::Handlers handlers;
  handlers.onOpen = [makeContext = std::move(makeContext)](uint32_t channel) -> std::shared_ptr<Connection> {
    std::shared_ptr<Transport> transport;
    {
      const std::lock_guard lock(requests->mutex);
      transport = requests->transport;
    }
    auto connection = Connection::accept(std::move(transport), channel);
    auto context = makeContext(UUID::random(), connection);
    {
      const std::lock_guard lock(requests->mutex);
      requests->contexts[channel] = std::move(context);
    }
    connection->setInvalidationHandler([channel] {
      std::shared_ptr<ExtensionContext> ended;
      const std::lock_guard lock(requests->mutex);
      ended.swap(requests->contexts[channel]);
      requests->contexts.erase(channel);
    });
    return connection;
  };
  handlers.onClose = [](const Error&) { stopMainQueue(); };
  {
    const std::lock_guard lock(requests->mutex);
    requests->transport = Transport::make(Descriptor(kExtensionDescriptor), "host", std::move(handlers));
  }
  runMainQueue();
  return 0;
}

}  // namespace larkspan::platform
