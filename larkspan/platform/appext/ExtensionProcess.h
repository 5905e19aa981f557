#pragma once

#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/ipc/Connection.h"
#include "larkspan/platform/ipc/Transport.h"
#include "larkspan/platform/process/Launcher.h"
#include "larkspan/platform/process/StartBudget.h"

#include <memory>
#include <mutex>
#include <vector>

namespace larkspan::platform {

/// The one process that a host has of an extension. It is started when somebody needs it, serves all requests
/// to its manifest, and is let go with the last of them: it sees end of file, and is killed if it stays,
/// or at once if it broke the protocol.
///
/// A process that ends, or closes its last channel, before it answered anything counts as a failed start;
/// after five within three minutes no more are made until the oldest is three minutes old. Ends by the host's
/// own hand do not count.
///
/// Owner:  kept for the life of the host, one per manifest, because it remembers the failed starts.
/// Thread: any; transports are handed out on any thread.
class ExtensionProcess : public std::enable_shared_from_this<ExtensionProcess> {
 public:
  static std::shared_ptr<ExtensionProcess> forManifest(const Manifest& manifest);
  ~ExtensionProcess();

  /// Calls back once with a transport to the running extension, starting it first if need be, or with the
  /// reason why there is none. An extension that starts and never says hello is waited for without a limit;
  /// see `end`.
  void transport(Connection::Connected completion);
  /// Ends the process at once: calls under way and starts that are waited for fail.
  void end();

 private:
  explicit ExtensionProcess(Manifest manifest) : manifest_(std::move(manifest)) {}
  std::optional<Error> begin();
  void launch(const std::shared_ptr<Transport>& transport, Descriptor socket);
  void ready(const std::shared_ptr<Transport>& transport);
  void closed(const std::shared_ptr<Transport>& transport, const Error& reason);
  void letGo(const std::shared_ptr<Transport>& transport, bool byExtension);

  const Manifest manifest_;
  std::mutex mutex_;
  // The process under way: what happens to an earlier one is told by its transport being another.
  std::shared_ptr<Transport> transport_;
  std::shared_ptr<LaunchedProcess> process_;
  bool ready_ = false;  // It has said hello.
  std::vector<Connection::Connected> waiters_;
  StartBudget startBudget_;
};

}  // namespace larkspan::platform
