#include "larkspan/provider/LKSExtension.h"

#include "larkspan/host/LKSCallbackManager.h"
#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/log/Console.h"
#include "larkspan/runtime/Log.h"

namespace larkspan {

using platform::Dictionary;
using platform::Error;
using platform::Value;

namespace {

Error notImplemented() { return Error(kExtensionErrorDomain, kNotImplementedErrorCode); }

template <typename View>
std::vector<View> viewsOf(const Items& items) {
  return {items.begin(), items.end()};
}

template <typename View>
std::optional<View> firstOf(const Items& items) {
  if (items.empty()) return std::nullopt;
  return View(items.front());
}

platform::Array arrayOf(const std::vector<std::string>& strings) {
  return std::vector<Value>(strings.begin(), strings.end());
}

}  // namespace

LKSExtension::LKSExtension()
    : queue_(platform::DispatchQueue::makeSerial("LKSExtension", platform::QualityOfService::userInitiated)) {
}

bool LKSExtension::isHidden() { return false; }
std::vector<std::string> LKSExtension::categories() { return {}; }
std::shared_ptr<platform::Object> LKSExtension::customHeaderIcon() { return nullptr; }

std::optional<Error> LKSExtension::deleteResourceItems(const std::vector<LKSResource>&) {
  platform::consoleLog("Error: Extension has not implemented deleteResourceItems method");
  return notImplemented();
}

std::optional<std::string> LKSExtension::localizedHeaderMessage() { return ""; }
std::optional<std::string> LKSExtension::localizedRevealButtonTitle() { return std::nullopt; }
std::string LKSExtension::localizedStringForCategory(const std::string& identifier) { return identifier; }
std::vector<std::string> LKSExtension::managedPaths() { return {}; }

std::optional<Error> LKSExtension::performHeaderAction() { return std::nullopt; }

std::optional<Error> LKSExtension::performSummaryAction(const std::optional<LKSSummaryResource>&) {
  platform::consoleLog("Error: Extension has not implemented performSummaryAction method");
  return std::nullopt;
}

std::optional<Error> LKSExtension::performTipAction(const LKSTipMessage&) {
  platform::consoleLog("Error: Extension has not implemented performTipAction method");
  return notImplemented();
}

std::optional<platform::URL> LKSExtension::representedApplication() { return std::nullopt; }
std::vector<LKSResource> LKSExtension::resourceItems() { return {}; }
bool LKSExtension::showItemPaths() { return false; }
std::optional<Error> LKSExtension::showResourceItems(const std::vector<LKSResource>&) { return std::nullopt; }
bool LKSExtension::showRevealButton() { return true; }
bool LKSExtension::showsSummaryPanel() { return false; }
std::vector<LKSTipMessage> LKSExtension::tipItems() { return {}; }
int64_t LKSExtension::totalSpaceUsed() { return 0; }

void LKSExtension::beginRequestWithExtensionContext(
    const std::shared_ptr<LKSRemoteExtensionContext>& context) {
  context->setStorageProvider(shared_from_this());
  LKSCallbackManager::sharedInstance().setContext(context);
  const std::lock_guard lock(mutex_);
  context_ = context;
}

void LKSExtension::processInputItems(const Items& items, ItemsCompletion completionHandler) {
  const Dictionary first = items.empty() ? Dictionary() : items.front().userInfo();
  const Value kind = first.get(kItemKindKey);
  const Value command = first.get(kCommandKey);
  LKSLog("beginRequestWithExtensionContext kind: %@ - cmd: %@", kind, command);
  if (kind.text() != kCommandKind || command.text().empty()) {
    platform::consoleLog("beginRequest: malformed request - must begin with a command item");
    return completionHandler(std::nullopt, notImplemented());
  }
  queue_->async([self = shared_from_this(), items, command = *command.string(), completionHandler] {
    // An error that came in with the command is none of its own.
    LKSCommand(items.front()).setLks_error(std::nullopt);
    Items reply{items.front()};
    self->run(command, Items(items.begin() + 1, items.end()), reply);
    LKSLog("Calling completion handler for command %@ with %ld items", command, reply.size());
    completionHandler(std::move(reply), std::nullopt);
  });
}

void LKSExtension::run(const std::string& command, const Items& arguments, Items& reply) {
  const auto fail = [&](const std::optional<Error>& error) {
    if (error) LKSCommand(reply.front()).setLks_error(error);
  };
  const auto append = [&](auto items) {
    reply.insert(reply.end(), std::move_iterator(items.begin()), std::move_iterator(items.end()));
  };
  const auto appendIfAny = [&](const auto& item) {
    if (item) reply.push_back(*item);
  };
  if (command == kCmdGetInfo) {
    reply.push_back(informationItem());
  } else if (command == kCmdResources) {
    LKSLog("beginRequestWithExtensionContext kCmdResources 1");
    append(resourceItems());
  } else if (command == kCmdDeleteResources) {
    const auto error = deleteResourceItems(viewsOf<LKSResource>(arguments));
    fail(error);
    if (!error) {
      const auto fresh = resourceItems();
      LKSCallbackManager::sharedInstance().notifyResourcesDidChange(Items(fresh.begin(), fresh.end()));
    }
  } else if (command == kCmdShowResources) {
    fail(showResourceItems(viewsOf<LKSResource>(arguments)));
  } else if (command == kCmdTips) {
    append(tipItems());
  } else if (command == kCmdPerformTipAction) {
    for (const auto& tip : viewsOf<LKSTipMessage>(arguments)) fail(performTipAction(tip));
  } else if (command == kCmdPerformHeaderAction) {
    fail(performHeaderAction());
  } else if (command == kCmdPerformSummaryAction) {
    fail(performSummaryAction(firstOf<LKSSummaryResource>(arguments)));
  } else if (command == kCmdConfirmDelete) {
    appendIfAny(confirmationTextForDelete(viewsOf<LKSResource>(arguments)));
  } else if (command == kCmdConfirmTipAction) {
    appendIfAny(confirmationTextForTipAction(firstOf<LKSTipMessage>(arguments)));
  } else if (command == kCmdConfirmSummaryAction) {
    appendIfAny(confirmationTextForSummaryAction(firstOf<LKSSummaryResource>(arguments)));
  }
}

MessageItem LKSExtension::informationItem() {
  auto information = Dictionary::withCapacity(14);
  const auto set = [&](platform::Key key, Value value) {
    if (!value.isNone()) information.set(key, std::move(value));
  };
  const auto setFlag = [&](platform::Key key, bool flag) { set(key, flag ? Value(true) : Value()); };
  if (const auto identifiers = categories(); !identifiers.empty()) {
    auto names = Dictionary::withCapacity(identifiers.size());
    for (const std::string& identifier : identifiers) {
      names.set(std::string_view(identifier), localizedStringForCategory(identifier));
    }
    set(kCategoriesKey, arrayOf(identifiers));
    set(kCategoryNamesKey, std::move(names));
  }
  set(kHeaderButtonTitleKey, localizedHeaderButtonTitle());
  set(kHeaderMessageKey, localizedHeaderMessage());
  set(kHiddenKey, isHidden());
  set(kAppURLKey, representedApplication());
  set(kManagedPathsKey, arrayOf(managedPaths()));
  setFlag(kShowsSummaryKey, showsSummaryPanel());
  set(kSizeKey, totalSpaceUsed());
  setFlag(kHideItemPathsKey, !showItemPaths());
  setFlag(kHideRevealButtonKey, !showRevealButton());
  set(kRevealButtonTitleKey, localizedRevealButtonTitle());
  LKSLog("beginRequestWithExtensionContext kCmdGetInfo %@", information);
  MessageItem item;
  item.setUserInfo(std::move(information));
  return item;
}

}  // namespace larkspan
