#pragma once

#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/runtime/LKSOperation.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

namespace larkspan {

/// Sends one command to an extension and finishes with its answer. There is one subclass per command; a host
/// makes one, sets `extension` and `inputItems`, and adds it to an operation queue.
/// Owner:   std::shared_ptr.
/// Thread:  the accessors on any; the operation finishes on the thread of the handle's completion.
/// Failure: `error` is the extension's own, or that of the transport; then there are no `returnedItems`.
class LKSExtensionOperation : public LKSOperation {
 public:
  /// The command of the object's class; the base class has none and throws std::invalid_argument.
  virtual std::string_view commandName() const;

  std::shared_ptr<LKSOpaqueExtension> extension() const;
  void setExtension(std::shared_ptr<LKSOpaqueExtension> extension);
  /// The command's arguments; nothing is none.
  std::optional<Items> inputItems() const;
  void setInputItems(std::optional<Items> items);
  /// The reply without its first item; nothing until the operation has finished without an error.
  std::optional<Items> returnedItems() const;
  void setReturnedItems(std::optional<Items> items);

  /// A new command item for this command, without an extension identifier.
  MessageItem commandInputItem() const;
  /// The command item and then the input items: what is sent.
  Items allInputItems() const;

  void main() override;
  /// Finishes with a reply: its first item carries the command's error, the others are the answer. Throws
  /// std::out_of_range for an empty one.
  void finishWithItems(const Items& reply);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<LKSOpaqueExtension> extension_;
  std::optional<Items> inputItems_;
  std::optional<Items> returnedItems_;
};

/// One item that describes the extension: categories, header texts, flags, total size.
class LKSFetchExtensionInfoOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdGetInfo; }
};

/// The resource items.
class LKSFetchResourcesOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdResources; }
};

/// Deletes the resource items given.
class LKSDeleteResourcesOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdDeleteResources; }
};

/// Shows the resource items given in the file manager.
class LKSShowResourceOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdShowResources; }
};

/// The tip items.
class LKSFetchRecommendationsOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdTips; }
};

/// Acts on the tip items given.
class LKSPerformRecommendationOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdPerformTipAction; }
};

/// Does what the header button says.
class LKSPerformHeaderActionOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdPerformHeaderAction; }
};

/// Acts on the summary item given; only the first counts.
class LKSPerformSummaryActionOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdPerformSummaryAction; }
};

/// The panel that asks before the resource items given are deleted.
class LKSFetchDeleteResourcesConfirmationOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdConfirmDelete; }
};

/// The panel that asks before the tip item given is acted on; only the first counts.
class LKSFetchPerformRecommendationConfirmationOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdConfirmTipAction; }
};

/// The panel that asks before the summary item given is acted on; only the first counts.
class LKSFetchPerformSummaryActionConfirmationOperation final : public LKSExtensionOperation {
 public:
  std::string_view commandName() const override { return kCmdConfirmSummaryAction; }
};

}  // namespace larkspan
