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

/// What became of the starts of one service by this process.
class Starts {
 public:
  static Starts& of(const std::string& name) {
    static auto* const mutex = new std::mutex;
    static auto* const byName = new std::map<std::string, Starts>;
    const std::lock_guard lock(*mutex);
    return (*byName)[name];
  }

  /// The number of a new start, or why there must be none.
  std::variant<int, std::string> begin(const std::string& name) {
    const std::lock_guard lock(mutex_);
    // Somebody starts it as nobody listens, so that the last one has ended, too.
    if (std::exchange(ungreeted_, 0) != 0) budget_.noteFailure();
    if (auto refusal = budget_.refusal(name)) return std::move(*refusal);
    return ungreeted_ = ++last_;
  }
  /// The last start is not held against the service: it has greeted, or could not be made.
  void settle() {
    const std::lock_guard lock(mutex_);
    ungreeted_ = 0;
  }
  void noteEnd(int start) {
    const std::lock_guard lock(mutex_);
    if (ungreeted_ != start) return;
    ungreeted_ = 0;
    budget_.noteFailure();
  }

 private:
  std::mutex mutex_;
  StartBudget budget_;
  int last_ = 0;
  int ungreeted_ = 0;  // The start of which nothing is known yet, or 0.
};

/// The way to one transport. Its handlers hold it.
class Attempt : public std::enable_shared_from_this<Attempt> {
 public:
  Attempt(std::string name, uid_t user, Connection::Connected completion)
      : name_(std::move(name)), user_(user), completion_(std::move(completion)) {}

  void run() {
    std::unique_lock lock(mutex_);
    const bool isLate = isAbandoned_;
    lock.unlock();
    if (isLate) return finish(nullptr, abandoned());
    auto socket = reach();
    if (const auto* error = std::get_if<Error>(&socket)) return finish(nullptr, *error);
    greet(std::get<Descriptor>(std::move(socket)));
  }
  /// Nobody waits any more.
  void abandon() {
    std::unique_lock lock(mutex_);
    isAbandoned_ = true;
    const auto transport = transport_;
    lock.unlock();
    if (transport) transport->close(abandoned());
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
    auto socket = connect(folder, true);
    if (socket) return std::move(*socket);
    if (!isOwn) return notRunning();
    if (const auto error = folder.lock()) {
      return failure(TransportErrorCode::launchFailed, "cannot be started: " + error->localizedDescription());
    }
    // Somebody else may have started it in the meantime.
    socket = connect(folder, false);
    if (socket) return std::move(*socket);
    // Kept until the connection is made, so that this holds even if the service has ended again by then.
    const auto listener = start(folder);
    if (const auto* error = std::get_if<Error>(&listener)) return *error;
    socket = connect(folder, false);
    return socket ? std::move(*socket) : failure(TransportErrorCode::launchFailed, "cannot be reached");
  }

  Error notRunning() const {
    return failure(TransportErrorCode::launchFailed, format("is not running for user %u", user_));
  }

  /// Nothing when nobody listens.
  std::optional<std::variant<Descriptor, Error>> connect(const ServiceFolder& folder, bool waits) const {
    auto socket = folder.connect(name_, waits);
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
    auto program = serviceProgram(name_);
    if (const auto* error = std::get_if<Error>(&program)) return *error;
    const auto begun = Starts::of(name_).begin(name_);
    if (const auto* refusal = std::get_if<std::string>(&begun))
      return transportError(TransportErrorCode::launchDelayed, *refusal);
    start_ = std::get<int>(begun);
    auto listener = folder.listen(name_);
    if (const auto* error = std::get_if<Error>(&listener)) {
      Starts::of(name_).settle();
      return failure(TransportErrorCode::launchFailed, "cannot be started: " + error->localizedDescription());
    }

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
      Starts::of(name_).settle();
      folder.remove(name_);
      return failure(TransportErrorCode::launchFailed,
                     "could not be started: " + error->localizedDescription());
    }
    return listener;
  }

  void greet(Descriptor socket) {
    Transport::Handlers handlers;
    handlers.onHello = [self = shared_from_this()] {
      Starts::of(self->name_).settle();
      if (auto transport = self->take()) self->finish(std::move(transport), std::nullopt);
    };
    handlers.onClose = [self = shared_from_this()](const Error& reason) { self->closed(reason); };
    // The handlers wait for it, and so find the transport.
    std::unique_lock lock(mutex_);
    const auto transport = transport_ = Transport::make(std::move(socket), name_, std::move(handlers));
    const bool isLate = isAbandoned_;
    lock.unlock();
    if (isLate) transport->close(abandoned());
  }

  Error abandoned() const { return failure(TransportErrorCode::invalidated, "is needed no more"); }

  std::shared_ptr<Transport> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(transport_, nullptr);
  }

  void closed(const Error& reason) {
    if (!take()) return;
    const bool isInterrupted = isTransportError(reason, TransportErrorCode::interrupted);
    if (isInterrupted && start_ != 0) Starts::of(name_).noteEnd(start_);
    if (isInterrupted && start_ == 0 && ++tries_ < kTries) {
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
  int start_ = 0;  // The number of the start that this made, if it did.
  int tries_ = 0;
  std::mutex mutex_;
  bool isAbandoned_ = false;
  std::shared_ptr<Transport> transport_;  // Until it has been greeted.
};

}  // namespace

Connection::Connector serviceConnector(std::string name) {
  return serviceConnector(std::move(name), Identity::current().effectiveUser);
}

Connection::Connector serviceConnector(std::string name, uid_t user) {
  if (!isIdentifier(name)) throw std::invalid_argument("That is no name of a service: " + name);
  return [name = std::move(name), user](Connection::Connected completion) -> Connection::Abandon {
    const auto attempt = std::make_shared<Attempt>(name, user, std::move(completion));
    DispatchQueue::global(QualityOfService::userInitiated)->async([attempt] { attempt->run(); });
    return [attempt] { attempt->abandon(); };
  };
}

}  // namespace larkspan::platform
