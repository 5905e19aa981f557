#pragma once

#include "larkspan/items/MessageItem.h"

namespace larkspan {

/// The one summary panel of an extension. Its two flags are stored as true or not at all.
class LKSSummaryResource : public MessageItem {
 public:
  LKSSummaryResource(MessageItem item) : MessageItem(std::move(item)) {}
  static std::optional<MessageItem> initWithLKSName(OptionalText) = delete;
  static std::optional<MessageItem> initWithName(OptionalText) = delete;

  /// An item that holds only its kind.
  static LKSSummaryResource initLKSSummaryResource();

  std::optional<std::string> lks_summaryTitle() const { return stringFor(kSummaryTitleKey); }
  void setLks_summaryTitle(OptionalText text) { setUserInfoObject(text, kSummaryTitleKey); }
  std::optional<std::string> lks_summaryMessage() const { return stringFor(kSummaryMessageKey); }
  void setLks_summaryMessage(OptionalText text) { setUserInfoObject(text, kSummaryMessageKey); }
  /// Title of the action button.
  std::optional<std::string> lks_summaryButton() const { return stringFor(kSummaryButtonKey); }
  void setLks_summaryButton(OptionalText text) { setUserInfoObject(text, kSummaryButtonKey); }
  std::optional<std::string> lks_summaryFooter() const { return stringFor(kSummaryFooterKey); }
  void setLks_summaryFooter(OptionalText text) { setUserInfoObject(text, kSummaryFooterKey); }
  /// Perform the action without a confirmation panel.
  bool lks_skipConfirmation() const { return boolFor(kSkipConfirmationKey); }
  void setLks_skipConfirmation(bool skip) { setFlag(skip, kSkipConfirmationKey); }
  /// The action destroys data.
  bool lks_isDestructive() const { return boolFor(kIsDestructiveKey); }
  void setLks_isDestructive(bool destructive) { setFlag(destructive, kIsDestructiveKey); }

  // Older names.
  static LKSSummaryResource initSummaryResource() { return initLKSSummaryResource(); }
  std::optional<std::string> summaryTitle() const { return lks_summaryTitle(); }
  void setSummaryTitle(OptionalText text) { setLks_summaryTitle(text); }
  std::optional<std::string> summaryMessage() const { return lks_summaryMessage(); }
  void setSummaryMessage(OptionalText text) { setLks_summaryMessage(text); }
  std::optional<std::string> summaryButton() const { return lks_summaryButton(); }
  void setSummaryButton(OptionalText text) { setLks_summaryButton(text); }
  std::optional<std::string> summaryFooter() const { return lks_summaryFooter(); }
  [[deprecated("calls itself until the stack is exhausted; call setLks_summaryFooter")]] void
  setSummaryFooter(OptionalText text);
  bool skipConfirmation() const { return lks_skipConfirmation(); }
  void setSkipConfirmation(bool skip) { setLks_skipConfirmation(skip); }
  bool isDestructive() const { return lks_isDestructive(); }
  void setIsDestructive(bool destructive) { setLks_isDestructive(destructive); }

 private:
  void setFlag(bool flag, Key key) {
    setUserInfoObject(flag ? platform::Value(true) : platform::Value(), key);
  }
};

}  // namespace larkspan
