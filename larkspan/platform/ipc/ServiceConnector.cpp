#include "larkspan/platform/ipc/ServiceConnector.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/Peer.h"
#include "larkspan/platform/ipc/ServiceFile.h"
#include "larkspan/platform/ipc/ServiceFolder.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/ipc/TransportLog.h"
#include "larkspan/platform/process/Identity.h"
#include "larkspan/platform/process/Launcher.h"
#include "larkspan/platform/process/StartBudget.h"
#include "larkspan/platform/process/TrustedFile.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace larkspan::platform {

namespace {

/// How often a service is looked for that went away before it greeted: it was about to end.
constexpr int kTries = 3;

/// What this process knows of failed starts, by name.
struct Budgets {
  std::mutex mutex;
  std::map<std::string, StartBudget> byName;
};

Budgets& budgets() {
  static auto* const value = new Budgets;
  return *value;
}

/// The way to one transport. Its handlers hold it.
class Attempt : public std::enable_shared_from_this<Attempt> {
 public:
  Attempt(std::string name, uid_t user, Connection::Connected completion)
      : name_(std::move(name)), user_(user), completion_(std::move(completion)) {}

  void run() {
    auto socket = reach();
    if (const auto* error = std::get_if<Error>(&socket)) return finish(nullptr, *error);
    greet(std::get<Descriptor>(std::move(socket)));
  }

 private:
  Error failure(TransportErrorCode code, std::string_view reason) const {
    return transportError(code, name_ + ' ' + std::string(reason));
  }

  std::variant<Descriptor, Error> reach() {
    const bool isOwn = user_ == Identity::current().effectiveUser;
    auto opened = ServiceFolder::open(user_);
    if (const auto* error = std::get_if<Error>(&opened)) {
      if (!isOwn && error->code() == ENOENT) return notRunning();
      return failure(TransportErrorCode::launchFailed, "cannot be reached: " + error->localizedDescription());
    }
    const auto& folder = std::get<ServiceFolder>(opened);
    auto socket = connect(folder);
    if (socket) return std::move(*socket);
    if (!isOwn) return notRunning();
    if (const auto error = folder.lock()) {
      return failure(TransportErrorCode::launchFailed, "cannot be started: " + error->localizedDescription());
    }
    // Somebody else may have started it in the meantime.
    socket = connect(folder);
    if (socket) return std::move(*socket);
    // Kept until the connection is made, so that this holds even if the service has ended again by then.
    const auto listener = start(folder);
    if (const auto* error = std::get_if<Error>(&listener)) return *error;
    socket = connect(folder);
    return socket ? std::move(*socket) : failure(TransportErrorCode::launchFailed, "cannot be reached");
  }

  Error notRunning() const {
    return failure(TransportErrorCode::launchFailed, format("is not running for user %u", user_));
  }

  /// Nothing when nobody listens.
  std::optional<std::variant<Descriptor, Error>> connect(const ServiceFolder& folder) const {
    auto socket = folder.connect(name_);
    const auto* errorNumber = std::get_if<int>(&socket);
    if (errorNumber) {
      if (*errorNumber == ENOENT || *errorNumber == ECONNREFUSED) return std::nullopt;
      if (*errorNumber == EAGAIN) return failure(TransportErrorCode::notReading, "takes no connection");
      return failure(TransportErrorCode::launchFailed,
                     std::string("cannot be reached: ") + std::strerror(*errorNumber));
    }
    const auto peer = peerOf(std::get<Descriptor>(socket).get());
    if (!peer || (peer->user != user_ && peer->user != 0))
      return failure(TransportErrorCode::violation, "is not who listens there");
    return std::get<Descriptor>(std::move(socket));
  }

  /// With the folder's lock. The socket at which the service listens.
  std::variant<Descriptor, Error> start(const ServiceFolder& folder) {
    {
      const std::lock_guard lock(budgets().mutex);
      if (const auto refusal = budgets().byName[name_].refusal(name_))
        return transportError(TransportErrorCode::launchDelayed, *refusal);
    }
    auto program = serviceProgram(name_);
    if (const auto* error = std::get_if<Error>(&program)) return *error;
    auto listener = folder.listen(name_);
    if (const auto* error = std::get_if<Error>(&listener))
      return failure(TransportErrorCode::launchFailed, "cannot be started: " + error->localizedDescription());

    ChildOptions options;
    options.arguments = std::get<std::vector<std::string>>(std::move(program));
    options.environment = environmentWith(
        {{"LISTEN_FDS", "1"}, {"LISTEN_PID", std::nullopt}, {"LISTEN_FDNAMES", std::nullopt}});
    options.processIdVariable = "LISTEN_PID";
    options.workingFolder = "/";
    options.descriptors = {{kServiceDescriptor, std::get<Descriptor>(listener).get()}};
    // It serves others when this process and its terminal have gone.
    options.ownSession = true;
    options.isSilent = true;
    const auto launched = Launcher::current()->launch(options, [name = name_](const ExitStatus& how) {
      transportLog().write(LogLevel::standard, format("%@ ended: %@", name, how.description()));
    });
    if (const auto* error = std::get_if<Error>(&launched)) {
      folder.remove(name_);
      return failure(TransportErrorCode::launchFailed,
                     "could not be started: " + error->localizedDescription());
    }
    hasStarted_ = true;
    return listener;
  }

  void greet(Descriptor socket) {
    Transport::Handlers handlers;
    handlers.onHello = [self = shared_from_this()] { self->finish(self->take(), std::nullopt); };
    handlers.onClose = [self = shared_from_this()](const Error& reason) { self->closed(reason); };
    // The handlers wait for it, and so find the transport.
    const std::lock_guard lock(mutex_);
    auto transport = Transport::make(std::move(socket), name_, std::move(handlers));
    watched_ = transport;
    transport_ = std::move(transport);
  }

  std::shared_ptr<Transport> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(transport_, nullptr);
  }

  void closed(const Error& reason) {
    const bool hasGreeted = !take();
    const auto transport = watched_.lock();
    const bool isInterrupted = isTransportError(reason, TransportErrorCode::interrupted);
    if (hasStarted_ && isInterrupted && transport && !transport->hasReplied()) {
      const std::lock_guard lock(budgets().mutex);
      budgets().byName[name_].noteFailure();
    }
    if (hasGreeted) return;
    if (isInterrupted && !hasStarted_ && ++tries_ < kTries) {
      return DispatchQueue::global(QualityOfService::userInitiated)->async([self = shared_from_this()] {
        self->run();
      });
    }
    finish(nullptr, isInterrupted ? failure(TransportErrorCode::interrupted, "went away") : reason);
  }

  void finish(std::shared_ptr<Transport> transport, std::optional<Error> error) {
    std::exchange(completion_, nullptr)(std::move(transport), std::move(error));
  }

  const std::string name_;
  const uid_t user_;
  Connection::Connected completion_;
  bool hasStarted_ = false;
  int tries_ = 0;
  std::mutex mutex_;
  std::shared_ptr<Transport> transport_;  // Until it has been greeted.
  std::weak_ptr<Transport> watched_;
};

}  // namespace

Connection::Connector serviceConnector(std::string name) {
  return serviceConnector(std::move(name), Identity::current().effectiveUser);
}

Connection::Connector serviceConnector(std::string name, uid_t user) {
  if (!isIdentifier(name)) throw std::invalid_argument("That is no name of a service: " + name);
  return [name = std::move(name), user](Connection::Connected completion) {
    DispatchQueue::global(QualityOfService::userInitiated)
        ->async([attempt = std::make_shared<Attempt>(name, user, std::move(completion))] { attempt->run(); });
  };
}

}  // namespace larkspan::platform
