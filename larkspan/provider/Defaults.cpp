// The default operations of LKSExtension that do more than answer a constant.

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Saturating.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "larkspan/platform/text/SizeText.h"
#include "larkspan/provider/LKSExtension.h"
#include "larkspan/runtime/LocalizedStrings.h"

#include <algorithm>

namespace larkspan {

using platform::format;

namespace {

LKSConfirmPanel panelWith(std::string_view title, std::string_view message, std::string_view okKey) {
  LKSConfirmPanel panel;
  panel.setLks_confirmTitle(title);
  panel.setLks_confirmMessage(message);
  panel.setLks_confirmOKButtonTitle(LKSLocalizedStringFromFramework(okKey));
  panel.setLks_confirmCancelButtonTitle(LKSLocalizedStringFromFramework("DM_CANCEL"));
  return panel;
}

/// The size as far as it is known and there is one.
int64_t knownSize(const LKSResource& item) { return std::max<int64_t>(0, item.lks_size()); }

}  // namespace

std::string LKSExtension::localizedFileSize(int64_t bytes) { return platform::sizeText(bytes); }

std::optional<LKSConfirmPanel> LKSExtension::confirmationTextForDelete(
    const std::vector<LKSResource>& items) {
  if (items.empty()) return std::nullopt;
  const auto text = &LKSLocalizedStringFromFramework;
  const auto name = items.front().lks_name();
  int64_t total = 0;
  for (const LKSResource& item : items) total = platform::saturatingSum(total, knownSize(item));
  if (items.size() == 1) {
    return panelWith(format(text("DM_REMOVE_TITLE_1"), name),
                     total >= 1 ? format(text("DM_REMOVE_MESSAGE_1"), localizedFileSize(total))
                                : text("DM_REMOVE_NOSIZE_1"),
                     "DM_REMOVE");
  }
  return panelWith(format(text("DM_REMOVE_TITLE"), items.size(), name),
                   total >= 1 ? format(text("DM_REMOVE_MESSAGE"), items.size(), localizedFileSize(total))
                              : format(text("DM_REMOVE_NOSIZE"), items.size()),
                   "DM_REMOVE");
}

std::optional<LKSConfirmPanel> LKSExtension::confirmationTextForTipAction(
    const std::optional<LKSTipMessage>& tip) {
  if (!tip) return std::nullopt;
  return panelWith("Apply This Recommendation?",
                   "Please implement confirmationTextForTipAction for this recommendation.", "DM_OK");
}

std::optional<LKSConfirmPanel> LKSExtension::confirmationTextForSummaryAction(
    const std::optional<LKSSummaryResource>& item) {
  if (!item) return std::nullopt;
  return panelWith("Perform This Action?", "Please implement confirmationTextForSummaryAction for this item.",
                   "DM_OK");
}

std::optional<std::string> LKSExtension::localizedHeaderButtonTitle() {
  const auto application = representedApplication();
  if (!application) return "";
  platform::ResourceValues values;
  platform::FileFacts::current().read(*application, values);
  std::string name = values.localizedName;
  constexpr std::string_view kEnding = ".app";
  if (name.ends_with(kEnding)) name.resize(name.size() - kEnding.size());
  if (name.empty()) return LKSLocalizedStringFromFramework("DM_OPEN");
  return format(LKSLocalizedStringFromFramework("DM_OPEN_X"), name);
}

}  // namespace larkspan
