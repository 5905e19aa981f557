#pragma once

#include "larkspan/items/MessageItem.h"

namespace larkspan {

/// The item that comes first in every request and reply: names the command, and carries its error back.
class LKSCommand : public MessageItem {
 public:
  LKSCommand(MessageItem item) : MessageItem(std::move(item)) {}
  static std::optional<MessageItem> initWithLKSName(OptionalText) = delete;
  static std::optional<MessageItem> initWithName(OptionalText) = delete;

  /// Nothing for an empty command; without an identifier the item names no extension.
  static std::optional<LKSCommand> initLKSCommandItem(OptionalText command,
                                                      OptionalText extensionID = std::nullopt);

  std::optional<std::string> lks_commandType() const { return stringFor(kCommandKey); }
  std::optional<std::string> lks_extensionID() const { return stringFor(kExtensionID); }
  std::optional<platform::Error> lks_error() const { return userInfo().get(kErrorKey).error(); }
  void setLks_error(const std::optional<platform::Error>& error) { setUserInfoObject(error, kErrorKey); }
};

}  // namespace larkspan
