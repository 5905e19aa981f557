#pragma once

#include "larkspan/platform/base/Value.h"

#include <cstdint>
#include <limits>
#include <span>

/// The vocabulary that host and extensions share: every kind, command and key of a message item. docs/wire.md
/// says what each value looks like on the wire.
namespace larkspan {

using platform::Key;

// Kinds: the text under kItemKindKey.
inline constexpr Key kCommandKind = "COMMAND";
inline constexpr Key kTipKind = "TIP";
inline constexpr Key kResourceKind = "RESOURCE";
inline constexpr Key kSummaryKind = "SUMMARY";

// Commands: the text under kCommandKey, compared exactly. A name that ends in "?" asks for items; the others
// act, and answer with at most an error.
inline constexpr Key kCmdGetInfo = "INFO?";
inline constexpr Key kCmdResources = "RESOURCES?";
inline constexpr Key kCmdDeleteResources = "RESOURCE_DELETE";
inline constexpr Key kCmdShowResources = "RESOURCE_SHOW";
inline constexpr Key kCmdTips = "TIPS?";
inline constexpr Key kCmdPerformTipAction = "TIP_PERFORM";
inline constexpr Key kCmdPerformHeaderAction = "HDR_PERFORM";
inline constexpr Key kCmdPerformSummaryAction = "SUMMARY_PERFORM";
inline constexpr Key kCmdConfirmDelete = "DELETE_CONFIRM?";
inline constexpr Key kCmdConfirmTipAction = "TIP_CONFIRM?";
inline constexpr Key kCmdConfirmSummaryAction = "SUMMARY_CONFIRM?";

// Keys of every item.
inline constexpr Key kItemKindKey = "_KIND_";      ///< string: one of the kinds
inline constexpr Key kNameKey = "_NAME_";          ///< string: display name
inline constexpr Key kCategoryKey = "_CATEGORY_";  ///< string: identifier of the item's category
inline constexpr Key kIconKey = "_ICON_";          ///< reserved, never set or read
inline constexpr Key kIconFileTypeKey =
    "_ICON_FILE_TYPE_";  ///< string: file type whose icon stands for the item
inline constexpr Key kIconConstructor = "_ICON_CONSTRUCTOR_";  ///< data: archived LKSIconConstructor
inline constexpr Key kReferenceKey = "_REFDATA_";  ///< any value: the extension's own, never interpreted
inline constexpr Key kFPItemKey = "_FPITEM_";      ///< data: archived file-provider item
inline constexpr Key kSizeKey = "_SIZE_";  ///< integer, bytes: the item's size, or the total space used
inline constexpr Key kAppSizeKey = "_APP_SIZE_";    ///< integer, bytes: the application's part of the size
inline constexpr Key kDataSizeKey = "_DATA_SIZE_";  ///< integer, bytes: the data's part of the size
inline constexpr Key kDeletableSizeKey =
    "_DELETABLE_SIZE_";                                 ///< integer, bytes: what deleting the item frees
inline constexpr Key kTagKey = "_TAG_";                 ///< integer: the extension's own
inline constexpr Key kHelpBookKey = "_HELP_BOOK_";      ///< string
inline constexpr Key kHelpAnchorKey = "_HELP_ANCHOR_";  ///< string: anchor in the help book
inline constexpr Key kBundleID = "_BUNDLE_ID_";         ///< reserved, never set or read
inline constexpr Key kIsOverride = "_IS_OVERRIDE_";     ///< reserved, never set or read
inline constexpr Key kUninstallerBundleID = "_UNINSTALLER_BUNDLE_ID_";  ///< reserved, never set or read

// Command items. The command's key begins with U+2022, which tells it apart from the kind.
inline constexpr Key kCommandKey =
    "\u2022"
    "COMMAND";                                  ///< string: one of the commands
inline constexpr Key kExtensionID = "_EXTID_";  ///< string: identifier of the extension addressed
inline constexpr Key kErrorKey = "_ERROR_";     ///< error: why the command failed

// The information reply.
inline constexpr Key kCategoriesKey = "_CATEGORIES_";  ///< array of strings: category identifiers
inline constexpr Key kCategoryNamesKey =
    "_CATEGORY_NAMES_";                                 ///< dictionary: category identifier to display name
inline constexpr Key kHiddenKey = "_HIDDEN_";           ///< boolean: the extension is to be hidden
inline constexpr Key kAppURLKey = "_APPURL_";           ///< URL: the application represented
inline constexpr Key kManagedPathsKey = "_APPPATHS_";   ///< array of strings: paths managed
inline constexpr Key kShowsSummaryKey = "_ISSUMMARY_";  ///< true or absent: there is a summary panel
inline constexpr Key kHeaderButtonTitleKey = "_HEADER_BUTTON_";  ///< string
inline constexpr Key kHeaderMessageKey = "_HEADER_MESSAGE_";     ///< string
inline constexpr Key kHideItemPathsKey = "_HIDE_PATHS_";         ///< true or absent: do not show paths
inline constexpr Key kHideRevealButtonKey =
    "_HIDE_REVEAL_";  ///< true or absent: do not show the reveal button
inline constexpr Key kRevealButtonTitleKey =
    "_REVEAL_TITLE_";  ///< string; on a resource: its own reveal button

// Resources.
inline constexpr Key kURLKey = "_URL_";                       ///< URL of the file
inline constexpr Key kVersionKey = "_VERSION_";               ///< string
inline constexpr Key kDateCreatedKey = "_CREATED_";           ///< date
inline constexpr Key kDateModifiedKey = "_MODIFIED_";         ///< date
inline constexpr Key kDateOpenedKey = "_OPENED_";             ///< date
inline constexpr Key kDeletableKey = "_DELETABLE_";           ///< boolean: may be deleted
inline constexpr Key kDownloadableKey = "_DOWNLOADABLE_";     ///< boolean: can be downloaded again
inline constexpr Key kRevealableKey = "_REVEALABLE_";         ///< boolean: may be shown in the file manager
inline constexpr Key kShowViewedColumnKey = "_SHOW_VIEWED_";  ///< boolean: has a viewed state to show
inline constexpr Key kViewedKey = "_VIEWED_";                 ///< reserved, never set or read
inline constexpr Key kPercentViewedKey = "_%VIEWED_";  ///< 32-bit float, 0 to 1: how much has been viewed

// Tips.
inline constexpr Key kSecondaryTitleKey = "_TITLE_ALT_";  ///< string: second line under the title
inline constexpr Key kInfoTextKey = "_INFOTEXT_";         ///< string: explanation
inline constexpr Key kTipPerformActionKey = "_ACTION_";   ///< string: title of the action button

// Summaries. Both flags are true or absent; some keys lack the closing underscore, and keep lacking it.
inline constexpr Key kSummaryTitleKey = "_SUMMARY_TITLE_";    ///< string
inline constexpr Key kSummaryMessageKey = "_SUMMARY_MSG_";    ///< string
inline constexpr Key kSummaryButtonKey = "_SUMMARY_BUTTON_";  ///< string
inline constexpr Key kSummaryFooterKey = "_SUMMARY_FOOTER_";  ///< string
inline constexpr Key kIsDestructiveKey = "_IS_DESTRUCTIVE";   ///< true or absent: the action destroys data
inline constexpr Key kSkipConfirmationKey = "_SKIP_CONFIRMATION_";  ///< true or absent: no confirmation panel

// Confirmation panels.
inline constexpr Key kConfirmTitleKey = "_CONFIRM_TITLE_";                ///< string
inline constexpr Key kConfirmMessageKey = "_CONFIRM_MESSAGE_";            ///< string
inline constexpr Key kConfirmOKKey = "_CONFIRM_OK_";                      ///< string: confirming button
inline constexpr Key kConfirmCancelKey = "_CONFIRM_CANCEL_";              ///< string: cancelling button
inline constexpr Key kConfirmOptionTitleKey = "_OPTION_TITLE_";           ///< string
inline constexpr Key kConfirmOptionMessageKey = "_OPTION_MESSAGE_";       ///< string
inline constexpr Key kConfirmCheckboxKey = "_OPTION_CHKBOX_";             ///< string: checkbox label
inline constexpr Key kConfirmCheckboxStateKey = "_OPTION_CHKBOX_STATE_";  ///< integer
inline constexpr Key kConfirmMenuItemsKey = "_OPTION_MENU";               ///< array of strings
inline constexpr Key kConfirmMenuIndexKey = "_OPTION_MENU_INDEX";         ///< integer: chosen entry

/// The size is not known.
inline constexpr int64_t LKSExtensionTotalSpaceUsedUnknown = std::numeric_limits<int64_t>::min();
/// The size is not known but is not zero. Equal to the above on purpose: a receiver cannot tell them apart.
inline constexpr int64_t LKSExtensionTotalSpaceUsedGreaterThanZero = std::numeric_limits<int64_t>::min();
/// Bytes below which a host may leave an item out; the library itself never does.
inline constexpr int64_t ITEM_MINIMAL_VISIBLE_SIZE = 1'048'576;
/// Identifier of the date column, for hosts.
inline constexpr Key ITEM_DATE_COLUMN = "ITEM_DATE_COLUMN";

/// A key and the kind of the values under it; none where any kind may stand or the key is reserved.
struct VocabularyEntry {
  Key key;
  platform::Value::Kind kind;
};

/// Every key above, for decoders that intern keys and for tools that type values by them.
std::span<const VocabularyEntry> vocabulary();

}  // namespace larkspan
