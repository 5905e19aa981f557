#include "larkspan/host/LKSExtensionOperation.h"

#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/runtime/Log.h"

#include <stdexcept>

namespace larkspan {

using platform::Error;
using platform::TransportErrorCode;

std::string_view LKSExtensionOperation::commandName() const {
  throw std::invalid_argument(
      "You must override +commandName and return a string appropriate for your subclass.");
}

std::shared_ptr<LKSOpaqueExtension> LKSExtensionOperation::extension() const {
  const std::lock_guard lock(mutex_);
  return extension_;
}

void LKSExtensionOperation::setExtension(std::shared_ptr<LKSOpaqueExtension> extension) {
  const std::lock_guard lock(mutex_);
  extension_.swap(extension);
}

std::optional<Items> LKSExtensionOperation::inputItems() const {
  const std::lock_guard lock(mutex_);
  return inputItems_;
}

void LKSExtensionOperation::setInputItems(std::optional<Items> items) {
  const std::lock_guard lock(mutex_);
  inputItems_.swap(items);
}

std::optional<Items> LKSExtensionOperation::returnedItems() const {
  const std::lock_guard lock(mutex_);
  return returnedItems_;
}

void LKSExtensionOperation::setReturnedItems(std::optional<Items> items) {
  const std::lock_guard lock(mutex_);
  returnedItems_.swap(items);
}

MessageItem LKSExtensionOperation::commandInputItem() const {
  MessageItem item;
  item.setUserInfo({{kItemKindKey, kCommandKind}, {kCommandKey, commandName()}});
  return item;
}

Items LKSExtensionOperation::allInputItems() const {
  Items items{commandInputItem()};
  if (const auto input = inputItems()) items.insert(items.end(), input->begin(), input->end());
  return items;
}

void LKSExtensionOperation::main() {
  const Items items = allInputItems();
  const auto handle = extension();
  LKSLog("Sending %@ to extension %@", items, handle);
  if (!handle) throw std::logic_error("The operation has no extension.");
  const auto self = std::static_pointer_cast<LKSExtensionOperation>(shared_from_this());
  handle->processInputItems(
      items, [self](const std::optional<Items>& reply, const std::optional<Error>& error) {
        if (!reply) return self->finishWithError(error);
        if (reply->empty()) {
          return self->finishWithError(
              platform::transportError(TransportErrorCode::noReply, "The extension's reply is empty"));
        }
        self->guarded([&] { self->finishWithItems(*reply); });
      });
}

void LKSExtensionOperation::finishWithItems(const Items& reply) {
  const auto error = LKSCommand(reply.at(0)).lks_error();
  if (!error) setReturnedItems(Items(reply.begin() + 1, reply.end()));
  finishWithError(error);
}

}  // namespace larkspan
