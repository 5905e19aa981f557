#pragma once

#include "larkspan/items/MessageItem.h"

namespace larkspan {

/// The texts and options of the panel that a host shows before something is destroyed. It has no kind and no
/// constructor of its own: any item can carry it.
class LKSConfirmPanel : public MessageItem {
 public:
  LKSConfirmPanel() = default;
  LKSConfirmPanel(MessageItem item) : MessageItem(std::move(item)) {}
  static std::optional<MessageItem> initWithLKSName(OptionalText) = delete;
  static std::optional<MessageItem> initWithName(OptionalText) = delete;

  std::optional<std::string> lks_confirmTitle() const { return stringFor(kConfirmTitleKey); }
  void setLks_confirmTitle(OptionalText text) { setUserInfoObject(text, kConfirmTitleKey); }
  std::optional<std::string> lks_confirmMessage() const { return stringFor(kConfirmMessageKey); }
  void setLks_confirmMessage(OptionalText text) { setUserInfoObject(text, kConfirmMessageKey); }
  std::optional<std::string> lks_confirmOKButtonTitle() const { return stringFor(kConfirmOKKey); }
  void setLks_confirmOKButtonTitle(OptionalText text) { setUserInfoObject(text, kConfirmOKKey); }
  std::optional<std::string> lks_confirmCancelButtonTitle() const { return stringFor(kConfirmCancelKey); }
  void setLks_confirmCancelButtonTitle(OptionalText text) { setUserInfoObject(text, kConfirmCancelKey); }
  std::optional<std::string> lks_confirmOptionTitle() const { return stringFor(kConfirmOptionTitleKey); }
  void setLks_confirmOptionTitle(OptionalText text) { setUserInfoObject(text, kConfirmOptionTitleKey); }
  std::optional<std::string> lks_confirmOptionMessage() const { return stringFor(kConfirmOptionMessageKey); }
  void setLks_confirmOptionMessage(OptionalText text) { setUserInfoObject(text, kConfirmOptionMessageKey); }
  /// Label of the checkbox.
  std::optional<std::string> lks_confirmOptionCheckbox() const { return stringFor(kConfirmCheckboxKey); }
  void setLks_confirmOptionCheckbox(OptionalText text) { setUserInfoObject(text, kConfirmCheckboxKey); }
  /// 0 is unchecked.
  int64_t lks_confirmOptionCheckboxState() const { return integerFor(kConfirmCheckboxStateKey); }
  void setLks_confirmOptionCheckboxState(int64_t state) {
    setUserInfoObject(state, kConfirmCheckboxStateKey);
  }
  /// The array of entries as it is stored; none when absent.
  platform::Value lks_confirmOptionMenuItems() const { return valueFor(kConfirmMenuItemsKey); }
  void setLks_confirmOptionMenuItems(std::optional<platform::Array> entries) {
    setUserInfoObject(std::move(entries), kConfirmMenuItemsKey);
  }
  int64_t lks_confirmOptionMenuIndex() const { return integerFor(kConfirmMenuIndexKey); }
  void setLks_confirmOptionMenuIndex(int64_t index) { setUserInfoObject(index, kConfirmMenuIndexKey); }

  // Older names.
  std::optional<std::string> confirmTitle() const { return lks_confirmTitle(); }
  void setConfirmTitle(OptionalText text) { setLks_confirmTitle(text); }
  std::optional<std::string> confirmMessage() const { return lks_confirmMessage(); }
  void setConfirmMessage(OptionalText text) { setLks_confirmMessage(text); }
  std::optional<std::string> confirmOKButtonTitle() const { return lks_confirmOKButtonTitle(); }
  void setConfirmOKButtonTitle(OptionalText text) { setLks_confirmOKButtonTitle(text); }
  std::optional<std::string> confirmCancelButtonTitle() const { return lks_confirmCancelButtonTitle(); }
  void setConfirmCancelButtonTitle(OptionalText text) { setLks_confirmCancelButtonTitle(text); }
  std::optional<std::string> confirmOptionTitle() const { return lks_confirmOptionTitle(); }
  void setConfirmOptionTitle(OptionalText text) { setLks_confirmOptionTitle(text); }
  std::optional<std::string> confirmOptionMessage() const { return lks_confirmOptionMessage(); }
  void setConfirmOptionMessage(OptionalText text) { setLks_confirmOptionMessage(text); }
  std::optional<std::string> confirmOptionCheckbox() const { return lks_confirmOptionCheckbox(); }
  void setConfirmOptionCheckbox(OptionalText text) { setLks_confirmOptionCheckbox(text); }
  int64_t confirmOptionCheckboxState() const { return lks_confirmOptionCheckboxState(); }
  void setConfirmOptionCheckboxState(int64_t state) { setLks_confirmOptionCheckboxState(state); }
  platform::Value confirmOptionMenuItems() const { return lks_confirmOptionMenuItems(); }
  void setConfirmOptionMenuItems(std::optional<platform::Array> entries) {
    setLks_confirmOptionMenuItems(std::move(entries));
  }
  int64_t confirmOptionMenuIndex() const { return lks_confirmOptionMenuIndex(); }
  void setConfirmOptionMenuIndex(int64_t index) { setLks_confirmOptionMenuIndex(index); }
};

}  // namespace larkspan
