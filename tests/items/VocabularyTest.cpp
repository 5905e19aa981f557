#include "larkspan/items/Vocabulary.h"

#include <gtest/gtest.h>

#include <set>
#include <string_view>

namespace larkspan {
namespace {

TEST(Vocabulary, IsExactlyWhatWasPublished) {
  // Each constant, then its text.
  // clang-format off
  const Key published[] = {
      kItemKindKey, "_KIND_", kCommandKey, "\u2022COMMAND", kExtensionID, "_EXTID_", kErrorKey, "_ERROR_",
      kNameKey, "_NAME_", kCategoryKey, "_CATEGORY_", kIconKey, "_ICON_",
      kIconFileTypeKey, "_ICON_FILE_TYPE_", kIconConstructor, "_ICON_CONSTRUCTOR_",
      kReferenceKey, "_REFDATA_", kCategoriesKey, "_CATEGORIES_", kCategoryNamesKey, "_CATEGORY_NAMES_",
      kHiddenKey, "_HIDDEN_", kAppURLKey, "_APPURL_", kManagedPathsKey, "_APPPATHS_", kSizeKey, "_SIZE_",
      kAppSizeKey, "_APP_SIZE_", kDataSizeKey, "_DATA_SIZE_", kDeletableSizeKey, "_DELETABLE_SIZE_",
      kTagKey, "_TAG_", kDateCreatedKey, "_CREATED_", kDateModifiedKey, "_MODIFIED_",
      kDateOpenedKey, "_OPENED_", kDeletableKey, "_DELETABLE_", kDownloadableKey, "_DOWNLOADABLE_",
      kRevealableKey, "_REVEALABLE_", kShowViewedColumnKey, "_SHOW_VIEWED_", kViewedKey, "_VIEWED_",
      kPercentViewedKey, "_%VIEWED_", kURLKey, "_URL_", kVersionKey, "_VERSION_", kFPItemKey, "_FPITEM_",
      kSecondaryTitleKey, "_TITLE_ALT_", kInfoTextKey, "_INFOTEXT_", kShowsSummaryKey, "_ISSUMMARY_",
      kHeaderButtonTitleKey, "_HEADER_BUTTON_", kHeaderMessageKey, "_HEADER_MESSAGE_",
      kHideItemPathsKey, "_HIDE_PATHS_", kHideRevealButtonKey, "_HIDE_REVEAL_",
      kRevealButtonTitleKey, "_REVEAL_TITLE_", kBundleID, "_BUNDLE_ID_", kIsOverride, "_IS_OVERRIDE_",
      kUninstallerBundleID, "_UNINSTALLER_BUNDLE_ID_", kHelpBookKey, "_HELP_BOOK_",
      kHelpAnchorKey, "_HELP_ANCHOR_", kTipPerformActionKey, "_ACTION_",
      kSummaryTitleKey, "_SUMMARY_TITLE_", kSummaryMessageKey, "_SUMMARY_MSG_",
      kSummaryButtonKey, "_SUMMARY_BUTTON_", kSummaryFooterKey, "_SUMMARY_FOOTER_",
      kIsDestructiveKey, "_IS_DESTRUCTIVE", kSkipConfirmationKey, "_SKIP_CONFIRMATION_",
      kConfirmTitleKey, "_CONFIRM_TITLE_", kConfirmMessageKey, "_CONFIRM_MESSAGE_",
      kConfirmOKKey, "_CONFIRM_OK_", kConfirmCancelKey, "_CONFIRM_CANCEL_",
      kConfirmOptionTitleKey, "_OPTION_TITLE_", kConfirmOptionMessageKey, "_OPTION_MESSAGE_",
      kConfirmCheckboxKey, "_OPTION_CHKBOX_", kConfirmCheckboxStateKey, "_OPTION_CHKBOX_STATE_",
      kConfirmMenuItemsKey, "_OPTION_MENU", kConfirmMenuIndexKey, "_OPTION_MENU_INDEX"};
  const Key words[] = {
      kCommandKind, "COMMAND", kTipKind, "TIP", kResourceKind, "RESOURCE", kSummaryKind, "SUMMARY",
      kCmdGetInfo, "INFO?", kCmdResources, "RESOURCES?", kCmdDeleteResources, "RESOURCE_DELETE",
      kCmdShowResources, "RESOURCE_SHOW", kCmdTips, "TIPS?", kCmdPerformTipAction, "TIP_PERFORM",
      kCmdPerformHeaderAction, "HDR_PERFORM", kCmdPerformSummaryAction, "SUMMARY_PERFORM",
      kCmdConfirmDelete, "DELETE_CONFIRM?", kCmdConfirmTipAction, "TIP_CONFIRM?",
      kCmdConfirmSummaryAction, "SUMMARY_CONFIRM?", ITEM_DATE_COLUMN, "ITEM_DATE_COLUMN"};
  // clang-format on
  std::set<std::string_view> texts, listed;
  for (std::size_t i = 0; i < std::size(published); i += 2) {
    EXPECT_EQ(std::string_view(published[i]), published[i + 1]);
    EXPECT_TRUE(texts.insert(published[i]).second) << std::string_view(published[i]);
  }
  for (const auto& entry : vocabulary()) EXPECT_TRUE(listed.insert(entry.key).second);
  EXPECT_EQ(listed, texts);
  EXPECT_EQ(std::string_view(kCommandKey).substr(0, 3), "\xE2\x80\xA2");
  for (std::size_t i = 0; i < std::size(words); i += 2) EXPECT_EQ(std::string_view(words[i]), words[i + 1]);

  EXPECT_EQ(static_cast<uint64_t>(LKSExtensionTotalSpaceUsedUnknown), 0x8000000000000000u);
  EXPECT_EQ(LKSExtensionTotalSpaceUsedGreaterThanZero, LKSExtensionTotalSpaceUsedUnknown);
  EXPECT_EQ(ITEM_MINIMAL_VISIBLE_SIZE, 1048576);
}

}  // namespace
}  // namespace larkspan
