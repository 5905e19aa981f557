#include "larkspan/platform/appext/ExtensionProcess.h"

#include "larkspan/platform/appext/ExtensionLaunch.h"
#include "larkspan/platform/appext/ExtensionLog.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/TransportError.h"

#include <map>
#include <utility>

#include <errno.h>
#include <sys/socket.h>

namespace larkspan::platform {

namespace {

/// How long an extension may take to leave once its host has let go of it.
constexpr std::chrono::seconds kLeaveGrace{2};

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<ExtensionProcess>> processes;
};

Registry& registry() {
  static auto* value = new Registry;
  return *value;
}

/// Its socket is closed, so it sees end of file; it gets some time to leave.
void killAfterGrace(const std::shared_ptr<LaunchedProcess>& process) {
  DispatchQueue::global(QualityOfService::utility)->after(kLeaveGrace, [process] { process->kill(); });
}

}  // namespace

std::shared_ptr<ExtensionProcess> ExtensionProcess::forManifest(const Manifest& manifest) {
  const std::lock_guard lock(registry().mutex);
  auto& process = registry().processes[manifest.path];
  // A manifest that has been edited stands for another program; who holds the earlier one may finish with it.
  if (!process || process->manifest_.exec != manifest.exec) process.reset(new ExtensionProcess(manifest));
  return process;
}

void ExtensionProcess::transport(Connection::Connected completion) {
  std::unique_lock lock(mutex_);
  while (const auto transport = ready_ ? transport_ : nullptr) {
    const auto reason = transport->closeReason();
    lock.unlock();
    if (!reason) return completion(transport, std::nullopt);
    // Its end has not come round yet.
    closed(transport, *reason);
    lock.lock();
  }
  if (!transport_) {
    if (const auto error = begin()) {
      lock.unlock();
      return completion(nullptr, *error);
    }
  }
  waiters_.push_back(std::move(completion));
}

ExtensionProcess::~ExtensionProcess() {
  if (process_) killAfterGrace(process_);
}

/// Makes the connection and sees to the launch; with the lock held.
std::optional<Error> ExtensionProcess::begin() {
  if (const auto refusal = startBudget_.refusal(manifest_.identifier))
    return transportError(TransportErrorCode::launchDelayed, *refusal);
  int sockets[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    return transportError(
        TransportErrorCode::launchFailed,
        Error::posix(errno, "Connecting to " + manifest_.identifier).localizedDescription());
  }
  // The handlers find their transport through a weak reference that is filled before the first of them can
  // run: they take the lock.
  const auto own = std::make_shared<std::weak_ptr<Transport>>();
  const auto on = [weak = weak_from_this(), own](auto member) {
    return [weak, own, member](const auto&... arguments) {
      const auto self = weak.lock();
      if (!self) return;
      std::shared_ptr<Transport> transport;
      {
        const std::lock_guard lock(self->mutex_);
        transport = own->lock();
      }
      if (transport) ((*self).*member)(transport, arguments...);
    };
  };
  Transport::Handlers handlers;
  handlers.onHello = on(&ExtensionProcess::ready);
  handlers.onLastChannel = on(&ExtensionProcess::letGo);
  handlers.onClose = on(&ExtensionProcess::closed);
  transport_ = Transport::make(Descriptor(sockets[0]), manifest_.identifier, std::move(handlers));
  *own = transport_;
  DispatchQueue::global(QualityOfService::userInitiated)
      ->async([self = shared_from_this(), transport = transport_, socket = Descriptor(sockets[1])]() mutable {
        self->launch(transport, std::move(socket));
      });
  return std::nullopt;
}

void ExtensionProcess::launch(const std::shared_ptr<Transport>& transport, Descriptor socket) {
  {
    const std::lock_guard lock(mutex_);
    if (transport_ != transport) return;
  }
  const auto onExit = [identifier = manifest_.identifier,
                       weak = std::weak_ptr(transport)](const ExitStatus& how) {
    const std::string text = format("%@ ended: %@", identifier, how.description());
    extensionLog().write(LogLevel::standard, text);
    // The socket may stay open in a process that the extension left behind.
    if (const auto gone = weak.lock()) gone->peerEnded(transportError(TransportErrorCode::interrupted, text));
  };
  auto launched = Launcher::current()->launch(extensionLaunch(manifest_, socket.get()), onExit);
  if (const auto* error = std::get_if<Error>(&launched)) {
    return transport->close(transportError(
        TransportErrorCode::launchFailed,
        format("%@ could not be started: %@", manifest_.identifier, error->localizedDescription())));
  }
  const auto& process = std::get<std::shared_ptr<LaunchedProcess>>(launched);
  std::unique_lock lock(mutex_);
  if (transport_ == transport) {
    process_ = process;
  } else {
    lock.unlock();
    process->kill();
  }
}

void ExtensionProcess::ready(const std::shared_ptr<Transport>& transport) {
  std::unique_lock lock(mutex_);
  if (transport_ != transport) return;
  ready_ = true;
  const auto waiters = std::exchange(waiters_, {});
  lock.unlock();
  for (const auto& waiter : waiters) waiter(transport, std::nullopt);
}

void ExtensionProcess::closed(const std::shared_ptr<Transport>& transport, const Error& reason) {
  std::unique_lock lock(mutex_);
  if (transport_ != transport) return;
  transport_ = nullptr;
  ready_ = false;
  const auto process = std::exchange(process_, nullptr);
  const auto waiters = std::exchange(waiters_, {});
  // Neither a program that could not be started nor the host's own doing counts.
  const bool ended = !isTransportError(reason, TransportErrorCode::launchFailed) &&
                     !isTransportError(reason, TransportErrorCode::invalidated);
  if (ended && !transport->hasReplied()) startBudget_.noteFailure();
  lock.unlock();
  if (process) {
    // One that breaks the protocol or does not read would not leave either; with the next start there would
    // be two.
    const bool isHostile = isTransportError(reason, TransportErrorCode::violation) ||
                           isTransportError(reason, TransportErrorCode::notReading);
    isHostile ? process->kill() : killAfterGrace(process);
  }
  for (const auto& waiter : waiters) waiter(nullptr, reason);
}

/// Nobody needs the extension any more, unless somebody has just begun to. The rest is that of an end.
/// An extension that closed the last channel before it answered anything might as well have ended.
void ExtensionProcess::letGo(const std::shared_ptr<Transport>& transport, bool byExtension) {
  const Error reason =
      byExtension && !transport->hasReplied()
          ? transportError(TransportErrorCode::interrupted, manifest_.identifier + " closed its channel")
          : transportError(TransportErrorCode::invalidated, "The host has let go of " + manifest_.identifier);
  if (transport->closeIfUnused(reason)) closed(transport, reason);
}

void ExtensionProcess::end() {
  std::unique_lock lock(mutex_);
  const auto transport = std::exchange(transport_, nullptr);
  const auto process = std::exchange(process_, nullptr);
  const auto waiters = std::exchange(waiters_, {});
  ready_ = false;
  lock.unlock();
  if (process) process->kill();
  const Error reason =
      transportError(TransportErrorCode::interrupted, "The host has ended " + manifest_.identifier);
  if (transport) transport->close(reason);
  for (const auto& waiter : waiters) waiter(nullptr, reason);
}

}  // namespace larkspan::platform
