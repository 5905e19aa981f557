#pragma once

#include "larkspan/host/LKSExtensionProtocols.h"
#include "larkspan/host/LKSRemoteExtensionContext.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace larkspan {

/// Domain and code of the error "not implemented".
inline constexpr std::string_view kExtensionErrorDomain = "corvane.larkspan";
inline constexpr int64_t kNotImplementedErrorCode = INT64_MAX;

/// Base of every storage extension: override what the extension manages, and hand the class to
/// `extensionMain`.
///
/// The host's commands run one after another on the extension's own serial queue, each by calling the
/// operation below that answers it; an operation may block, and the next command waits. What an operation
/// returns as an error travels to the host with the reply. An operation that takes long may push what it
/// finds through LKSCallbackManager.
///
/// Owner:   `extensionMain`, for the life of the process.
/// Thread:  the operations run on the queue "LKSExtension", everything else on any thread.
/// Failure: an exception that leaves an operation ends the process; the host starts it again with its next
///          command.
class LKSExtension : public LKSRemoteExtensionContextProtocol,
                     public std::enable_shared_from_this<LKSExtension> {
 public:
  LKSExtension();

  // What an extension may override.

  /// Hosts are not to list this extension. Default: false.
  virtual bool isHidden();
  /// Identifiers of the categories that resources name. Default: none.
  virtual std::vector<std::string> categories();
  /// The panel that asks before these resources are deleted, or nothing. Default: how many, and how much that
  /// frees.
  virtual std::optional<LKSConfirmPanel> confirmationTextForDelete(const std::vector<LKSResource>& items);
  /// The panel that asks before the summary is acted on, or nothing. Default: one that tells the author to
  /// write it; so does the next.
  virtual std::optional<LKSConfirmPanel> confirmationTextForSummaryAction(
      const std::optional<LKSSummaryResource>& item);
  virtual std::optional<LKSConfirmPanel> confirmationTextForTipAction(
      const std::optional<LKSTipMessage>& tip);
  /// Never asked for; icons do not travel. Default: null.
  virtual std::shared_ptr<platform::Object> customHeaderIcon();
  /// Deletes the resources. Default: the error "not implemented".
  virtual std::optional<platform::Error> deleteResourceItems(const std::vector<LKSResource>& items);
  /// Default: "Open" and the name of the represented application; empty without one.
  virtual std::optional<std::string> localizedHeaderButtonTitle();
  /// Default: empty.
  virtual std::optional<std::string> localizedHeaderMessage();
  /// Title of the button that shows resources in the file manager; nothing leaves it to the host. Default:
  /// nothing.
  virtual std::optional<std::string> localizedRevealButtonTitle();
  /// The name that people read. Default: the identifier.
  virtual std::string localizedStringForCategory(const std::string& identifier);
  /// Paths that the extension answers for. Default: none.
  virtual std::vector<std::string> managedPaths();
  /// What the header button does. Default: nothing, successfully.
  virtual std::optional<platform::Error> performHeaderAction();
  /// Default: a line on the console, and success all the same.
  virtual std::optional<platform::Error> performSummaryAction(const std::optional<LKSSummaryResource>& item);
  /// Default: the error "not implemented".
  virtual std::optional<platform::Error> performTipAction(const LKSTipMessage& tip);
  /// File URL of the application whose data this is. Default: nothing.
  virtual std::optional<platform::URL> representedApplication();
  /// What the extension manages. Default: none.
  virtual std::vector<LKSResource> resourceItems();
  /// Hosts may show the resources' paths. Default: false.
  virtual bool showItemPaths();
  /// Shows the resources in the file manager. Default: nothing, successfully.
  virtual std::optional<platform::Error> showResourceItems(const std::vector<LKSResource>& items);
  /// Default: true.
  virtual bool showRevealButton();
  /// Default: false.
  virtual bool showsSummaryPanel();
  /// Recommendations. Default: none.
  virtual std::vector<LKSTipMessage> tipItems();
  /// Bytes, or LKSExtensionTotalSpaceUsedUnknown. Default: 0.
  virtual int64_t totalSpaceUsed();

  // What calls them.

  /// A request begins: the context hands its items to this extension, and callbacks go to its host.
  void beginRequestWithExtensionContext(const std::shared_ptr<LKSRemoteExtensionContext>& context);
  /// Runs the command that the first item names and completes with that item, which carries the error if
  /// there is one, and the answer. Returns at once; completes once, on the extension's queue, or on the
  /// calling thread for a request that does not begin with a command item.
  void processInputItems(const Items& items, ItemsCompletion completionHandler) override;

  /// The size as people read it, such as "1.5 GB".
  static std::string localizedFileSize(int64_t bytes);

 private:
  void run(const std::string& command, const Items& arguments, Items& reply);
  MessageItem informationItem();

  const std::shared_ptr<platform::DispatchQueue> queue_;
  std::mutex mutex_;
  std::weak_ptr<LKSRemoteExtensionContext> context_;
};

}  // namespace larkspan
