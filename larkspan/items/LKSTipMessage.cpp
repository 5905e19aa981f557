#include "larkspan/items/LKSTipMessage.h"

namespace larkspan {

std::optional<LKSTipMessage> LKSTipMessage::initLKSTipWithTitle(OptionalText title) {
  if (!title || title->empty()) return std::nullopt;
  MessageItem item;
  item.setUserInfo({{kNameKey, *title}, {kItemKindKey, kTipKind}});
  return LKSTipMessage(std::move(item));
}

}  // namespace larkspan
