#include "larkspan/host/LKSHostExtensionContext.h"

#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/runtime/Log.h"

namespace larkspan {

using platform::ClassSet;
using platform::Interface;
using platform::Value;
using platform::ValueClass;

namespace {

/// The methods whose argument 1 holds items.
constexpr std::string_view kItemMethods[] = {kPartialResourceItems, kNotifyResourcesDidChange,
                                             kNotifyTipsDidChange};

Interface makeHostProtocol() {
  const ClassSet identifier{ValueClass::string};
  Interface interface(
      "LKSExtensionCallbackProtocol",
      {{std::string(kPartialResourceItems), {identifier, {}}, std::nullopt},
       {std::string(kNotifyResourcesDidChange), {identifier, {}}, std::nullopt},
       {std::string(kNotifyTipsDidChange), {identifier, {}}, std::nullopt},
       {std::string(kNotifyTotalSpaceUsedDidChange), {identifier, {ValueClass::number}}, std::nullopt}});
  for (const std::string_view method : kItemMethods) {
    interface.setClasses(LKSHostExtensionContext::extensionItemClasses(), method, 1, false);
  }
  return interface;
}

}  // namespace

LKSHostExtensionContext::LKSHostExtensionContext(platform::UUID uuid,
                                                 std::shared_ptr<platform::Connection> connection)
    : ExtensionContext(uuid, std::move(connection)), budget_([this](std::size_t calls) {
        LKSLog("%@ calls too often: %zu calls were not logged", extension(), calls);
      }) {}

std::shared_ptr<LKSHostExtensionContext> LKSHostExtensionContext::make(
    platform::UUID uuid, std::shared_ptr<platform::Connection> connection) {
  std::shared_ptr<LKSHostExtensionContext> context(new LKSHostExtensionContext(uuid, connection));
  connection->setRemoteInterface(extensionAuxiliaryVendorProtocol());
  connection->setExported(context->derivedExtensionAuxiliaryHostProtocol(), context);
  return context;
}

const ClassSet& LKSHostExtensionContext::extensionItemClasses() {
  static const ClassSet& classes = []() -> const ClassSet& {
    std::vector<platform::Key> keys;
    for (const VocabularyEntry& entry : vocabulary()) keys.push_back(entry.key);
    platform::internKeys(keys);
    return platform::ExtensionItem::itemClasses();
  }();
  return classes;
}

const std::shared_ptr<const Interface>& LKSHostExtensionContext::extensionAuxiliaryHostProtocol() {
  static const auto* interface =
      new std::shared_ptr<const Interface>(std::make_shared<Interface>(makeHostProtocol()));
  return *interface;
}

std::shared_ptr<const Interface> LKSHostExtensionContext::extensionAuxiliaryVendorProtocol() {
  const ClassSet& items = extensionItemClasses();
  return std::make_shared<Interface>(
      "LKSRemoteExtensionContext",
      std::vector<Interface::Method>{{std::string(kProcessInputItems),
                                      {items},
                                      std::vector<ClassSet>{items, {ValueClass::error}},
                                      true}});
}

std::shared_ptr<const Interface> LKSHostExtensionContext::derivedExtensionAuxiliaryHostProtocol() const {
  auto interface = std::make_shared<Interface>(*extensionAuxiliaryHostProtocol());
  for (const std::string_view method : kItemMethods)
    interface->setClasses(extensionItemClasses(), method, 1, false);
  return interface;
}

std::shared_ptr<LKSOpaqueExtension> LKSHostExtensionContext::extension() const {
  const std::lock_guard lock(mutex_);
  return extension_.lock();
}

void LKSHostExtensionContext::setExtension(const std::shared_ptr<LKSOpaqueExtension>& extension) {
  const std::lock_guard lock(mutex_);
  extension_ = extension;
}

/// An extension that calls without end does not fill the log.
template <typename... Arguments>
void LKSHostExtensionContext::log(std::string_view sender, const char* format,
                                  const Arguments&... arguments) {
  if (budget_.allows(sender.size())) LKSLog(format, arguments...);
}

void LKSHostExtensionContext::post(platform::Key name, platform::Dictionary userInfo) {
  platform::NotificationCenter::defaultCenter().post(name, extension(), std::move(userInfo));
}

void LKSHostExtensionContext::extensionPartialResourceItems(std::string_view extension, const Items& items) {
  log(extension, "Received %ld partial resource items from %@", items.size(), extension);
  post(LKSOpaqueExtensionResourceEnumerationProgressNotification,
       {{LKSOpaqueExtensionAddedResourcesKey, arrayFromItems(items)}});
}

void LKSHostExtensionContext::extensionNotifyResourcesDidChange(std::string_view extension,
                                                                const Items& items) {
  log(extension, "%@ sent resourcesDidChange with %ld items", extension, items.size());
  post(LKSOpaqueExtensionResourcesDidChangeNotification);
}

void LKSHostExtensionContext::extensionNotifyTipsDidChange(std::string_view extension, const Items& items) {
  log(extension, "%@ sent tipsDidChange with %ld items", extension, items.size());
  post(LKSOpaqueExtensionRecommendationsDidChangeNotification);
}

void LKSHostExtensionContext::extensionNotifyTotalSpaceUsedDidChange(std::string_view extension,
                                                                     int64_t bytes) {
  log(extension, "%@ sent totalSpaceUsedDidChange : %@", extension, bytes);
  post(LKSOpaqueExtensionBytesUsedDidChangeNotification);
}

void LKSHostExtensionContext::receive(std::string_view method, const std::vector<Value>& arguments,
                                      platform::Reply) {
  const std::string_view sender = arguments[0].text();
  if (method == kNotifyTotalSpaceUsedDidChange) {
    return extensionNotifyTotalSpaceUsedDidChange(sender, arguments[1].integerValue());
  }
  const Items items = itemsFromValue(arguments[1]);
  if (method == kPartialResourceItems) return extensionPartialResourceItems(sender, items);
  if (method == kNotifyResourcesDidChange) return extensionNotifyResourcesDidChange(sender, items);
  extensionNotifyTipsDidChange(sender, items);
}

}  // namespace larkspan
