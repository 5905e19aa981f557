#include "larkspan/platform/ipc/Listener.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/ipc/ServiceConnector.h"
#include "larkspan/platform/ipc/ServiceFolder.h"
#include "larkspan/platform/ipc/Serving.h"
#include "larkspan/platform/ipc/TransportLog.h"
#include "larkspan/platform/process/Identity.h"
#include "larkspan/platform/process/TrustedFile.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

/// Until more clients are let in when there were too many, or no descriptors.
constexpr std::chrono::milliseconds kPause{100};

bool isListening(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM && option(SO_ACCEPTCONN) == 1;
}

/// What the starter has left, once.
Descriptor takePassed() {
  static std::atomic<bool> isTaken{false};
  const auto is = [](const char* variable, const std::string& value) {
    const char* const text = ::getenv(variable);
    return text && text == value;
  };
  if (!is("LISTEN_FDS", "1") || !is("LISTEN_PID", std::to_string(::getpid())) || isTaken.exchange(true))
    return {};
  if (!isListening(kServiceDescriptor)) return {};
  ::fcntl(kServiceDescriptor, F_SETFD, FD_CLOEXEC);
  return Descriptor(kServiceDescriptor);
}

std::variant<Descriptor, Error> listenAs(const std::string& name) {
  if (Descriptor passed = takePassed()) return passed;
  auto opened = ServiceFolder::open(Identity::current().effectiveUser);
  if (auto* error = std::get_if<Error>(&opened)) return std::move(*error);
  const auto& folder = std::get<ServiceFolder>(opened);
  if (auto error = folder.lock()) return std::move(*error);
  const auto other = folder.connect(name, false);
  const auto* errorNumber = std::get_if<int>(&other);
  if (!errorNumber || *errorNumber == EAGAIN) return Error::posix(EADDRINUSE, name);
  if (*errorNumber != ENOENT && *errorNumber != ECONNREFUSED) return Error::posix(*errorNumber, name);
  return folder.listen(name);
}

}  // namespace

/// Held by its source until that is cancelled.
class Listener::Accepting : public std::enable_shared_from_this<Accepting> {
 public:
  Accepting(Descriptor socket, Handler handler)
      : socket_(std::move(socket)), handler_(std::make_shared<const Handler>(std::move(handler))) {}

  /// False with errno when the socket cannot be watched.
  bool begin() {
    ::fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
    source_ =
        IoSource::make(socket_.get(), EPOLLIN, [self = shared_from_this()](uint32_t) { self->acceptAll(); });
    return source_ != nullptr;
  }
  void end() {
    source_->cancel();
    socket_.reset();
  }

 private:
  void acceptAll() {
    for (;;) {
      if (*clients_ >= limits::kMaximumClients) return IoSource::pause(kPause);
      Descriptor socket(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (socket) {
        take(std::move(socket));
      } else if (errno == EAGAIN) {
        return;
      } else if (errno != EINTR && errno != ECONNABORTED) {
        return IoSource::pause(kPause);
      }
    }
  }

  void take(Descriptor socket) {
    const auto peer = peerOf(socket.get());
    if (!peer || (peer->user != 0 && peer->user != Identity::current().effectiveUser)) {
      transportLog().write(LogLevel::fault,
                           format("Refused %@", peer ? peer->description() : "an unknown process"));
      return;
    }
    ++*clients_;
    serve(
        std::move(socket), peer->description(),
        [handler = handler_, peer = *peer](const auto& connection) { return (*handler)(connection, peer); },
        [clients = clients_] { --*clients; });
  }

  Descriptor socket_;
  const std::shared_ptr<const Handler> handler_;
  const std::shared_ptr<std::atomic<int>> clients_ = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<IoSource> source_;
};

std::variant<std::shared_ptr<Listener>, Error> Listener::make(const std::string& name, Handler handler) {
  if (!isIdentifier(name)) throw std::invalid_argument("That is no name of a service: " + name);
  auto socket = listenAs(name);
  if (auto* error = std::get_if<Error>(&socket)) return std::move(*error);
  auto accepting = std::make_shared<Accepting>(std::get<Descriptor>(std::move(socket)), std::move(handler));
  if (!accepting->begin()) return Error::posix(errno, name);
  return std::shared_ptr<Listener>(new Listener(std::move(accepting)));
}

Listener::Listener(std::shared_ptr<Accepting> accepting) : accepting_(std::move(accepting)) {}

Listener::~Listener() { accepting_->end(); }

}  // namespace larkspan::platform
