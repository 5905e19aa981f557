#pragma once

#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/platform/appext/Extension.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larkspan {

/// A host's handle on one discovered extension, and the object of every notification about it. Two handles
/// are equal when their extensions have the same manifest.
/// Owner:   the caller; dropping it lets outstanding replies arrive and be forgotten.
/// Thread:  any. Completions arrive on the connection's delivery queue, where they must not wait for another
///          exchange with the same extension; what fails at once is told on the calling thread.
/// Failure: interrupted: the exchanges under way fail, the next one starts the extension again. Invalidated:
///          `context()` is null and the next exchange begins a new request. Nothing is retried, and an
///          extension that does not answer is waited for until it ends or `abandon` is called.
class LKSOpaqueExtension : public platform::Object {
 public:
  static std::shared_ptr<LKSOpaqueExtension> initWithExtension(
      std::shared_ptr<platform::Extension> extension);

  /// The extension's identifier, from its manifest.
  std::string identifier() const { return underlyingExtension()->identifier(); }
  /// "<LKSOpaqueExtension:ADDRESS EXTENSION>".
  std::string description() const override;
  bool isEqual(const platform::Object& other) const override;
  std::size_t hash() const override;

  std::shared_ptr<platform::Extension> underlyingExtension() const;
  /// For requests that begin from now on; the manifest is to be the same, since it is the handle's identity.
  void setUnderlyingExtension(std::shared_ptr<platform::Extension> extension);
  /// The request that later exchanges use; null until the first exchange.
  std::shared_ptr<LKSHostExtensionContext> context() const;
  void setContext(std::shared_ptr<LKSHostExtensionContext> context);

  /// One exchange: sends the items and calls back exactly once, with the reply's items and the error that
  /// came with them, or without items and the error that stopped the exchange.
  void processInputItems(const Items& items, ItemsCompletion completionHandler);

  /// Gives up what is under way, for a host whose patience has a limit: the request ends, and the extension's
  /// process is killed. Outstanding completions get an error.
  void abandon();

 private:
  explicit LKSOpaqueExtension(std::shared_ptr<platform::Extension> extension)
      : underlyingExtension_(std::move(extension)) {}
  void exchange(const std::shared_ptr<LKSHostExtensionContext>& context, const Items& items,
                const ItemsCompletion& completionHandler);

  mutable std::mutex mutex_;
  std::shared_ptr<platform::Extension> underlyingExtension_;
  std::vector<std::weak_ptr<platform::Extension>> earlierExtensions_;  // With exchanges that may go on.
  unsigned abandonments_ = 0;
  std::shared_ptr<LKSHostExtensionContext> context_;
};

/// The discovered handles, each replaced by an equal one that is already held, if any, so that its request
/// goes on. A held handle whose manifest now names another program gets the discovered extension and begins
/// anew.
std::vector<std::shared_ptr<LKSOpaqueExtension>> mergeHandles(
    const std::vector<std::shared_ptr<LKSOpaqueExtension>>& discovered,
    const std::vector<std::shared_ptr<LKSOpaqueExtension>>& held);

}  // namespace larkspan
