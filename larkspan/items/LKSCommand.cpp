#include "larkspan/items/LKSCommand.h"

namespace larkspan {

std::optional<LKSCommand> LKSCommand::initLKSCommandItem(OptionalText command, OptionalText extensionID) {
  if (!command || command->empty()) return std::nullopt;
  platform::Dictionary userInfo{{kItemKindKey, kCommandKind}, {kCommandKey, *command}};
  if (extensionID) userInfo.set(kExtensionID, *extensionID);
  MessageItem item;
  item.setUserInfo(std::move(userInfo));
  return LKSCommand(std::move(item));
}

}  // namespace larkspan
