#include "larkspan/platform/appext/ExtensionMain.h"

#include "larkspan/platform/appext/ExtensionLaunch.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/Serving.h"

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>

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

  serve(
      Descriptor(kExtensionDescriptor), "host",
      [makeContext = std::move(makeContext)](const std::shared_ptr<Connection>& connection) {
        return makeContext(UUID::random(), connection);
      },
      stopMainQueue);
  runMainQueue();
  return 0;
}

}  // namespace larkspan::platform
