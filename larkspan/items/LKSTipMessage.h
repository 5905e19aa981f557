#pragma once

#include "larkspan/items/LKSConfirmPanel.h"

namespace larkspan {

/// A recommendation that an extension offers, with the button that acts on it. Its option button is the same
/// field as the checkbox of its confirmation panel.
class LKSTipMessage : public MessageItem {
 public:
  LKSTipMessage(MessageItem item) : MessageItem(std::move(item)) {}
  static std::optional<MessageItem> initWithLKSName(OptionalText) = delete;
  static std::optional<MessageItem> initWithName(OptionalText) = delete;

  /// Nothing without a title; it is read through `lks_name()`.
  static std::optional<LKSTipMessage> initLKSTipWithTitle(OptionalText title);

  /// Second line under the title.
  std::optional<std::string> lks_secondaryTitle() const { return stringFor(kSecondaryTitleKey); }
  void setLks_secondaryTitle(OptionalText text) { setUserInfoObject(text, kSecondaryTitleKey); }
  std::optional<std::string> lks_actionButtonTitle() const { return stringFor(kTipPerformActionKey); }
  void setLks_actionButtonTitle(OptionalText text) { setUserInfoObject(text, kTipPerformActionKey); }
  std::optional<std::string> lks_infoText() const { return stringFor(kInfoTextKey); }
  void setLks_infoText(OptionalText text) { setUserInfoObject(text, kInfoTextKey); }
  std::optional<std::string> lks_optionButtonTitle() const { return panel().lks_confirmOptionCheckbox(); }
  void setLks_optionButtonTitle(OptionalText text) { panel().setLks_confirmOptionCheckbox(text); }
  std::optional<std::string> lks_optionMessage() const { return panel().lks_confirmOptionMessage(); }
  void setLks_optionMessage(OptionalText text) { panel().setLks_confirmOptionMessage(text); }
  bool lks_isOptionButtonChecked() const { return panel().lks_confirmOptionCheckboxState() != 0; }
  void setLks_optionButtonChecked(bool checked) {
    panel().setLks_confirmOptionCheckboxState(checked ? 1 : 0);
  }

  // Older names.
  static std::optional<LKSTipMessage> initTipWithTitle(OptionalText title) {
    return initLKSTipWithTitle(title);
  }
  std::optional<std::string> secondaryTitle() const { return lks_secondaryTitle(); }
  void setSecondaryTitle(OptionalText text) { setLks_secondaryTitle(text); }
  std::optional<std::string> infoText() const { return lks_infoText(); }
  void setInfoText(OptionalText text) { setLks_infoText(text); }
  std::optional<std::string> actionButtonTitle() const { return lks_actionButtonTitle(); }
  void setActionButtonTitle(OptionalText text) { setLks_actionButtonTitle(text); }
  std::optional<std::string> optionButtonTitle() const { return lks_optionButtonTitle(); }
  void setOptionButtonTitle(OptionalText text) { setLks_optionButtonTitle(text); }
  std::optional<std::string> optionMessage() const { return lks_optionMessage(); }
  void setOptionMessage(OptionalText text) { setLks_optionMessage(text); }
  bool isOptionButtonChecked() const { return lks_isOptionButtonChecked(); }
  void setOptionButtonChecked(bool checked) { setLks_optionButtonChecked(checked); }

 private:
  LKSConfirmPanel panel() const { return LKSConfirmPanel(*this); }
};

}  // namespace larkspan
