#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"

#include <gtest/gtest.h>

#include <csignal>
#include <set>
#include <string>
#include <type_traits>

#include <sys/resource.h>
#include <unistd.h>

namespace larkspan {
namespace {

using namespace platform;

constexpr int64_t kUnknown = LKSExtensionTotalSpaceUsedUnknown;

template <typename View, typename Argument>
using Setter = void (View::*)(Argument);
template <typename View, typename Result>
using Getter = Result (View::*)() const;

/// What stands under a key, and what is read from it.
struct Row {
  Value sample, stored;   ///< a sample as it is read, and as it is stored
  Value cleared;          ///< what stands there once nothing, false or 0 was set; none: no key
  Value absent;           ///< what is read where nothing stands
  Value wrong = Value();  ///< what is read where something of another kind stands
};

template <typename V, typename A, typename R, typename Sample>
void check(Key key, const Row& row, const Sample& sample, Setter<V, A> set, Getter<V, R> get,
           Setter<V, A> setOld, Getter<V, R> getOld) {
  SCOPED_TRACE(std::string(std::string_view(key)));
  for (const auto setter : {set, setOld}) {
    MessageItem item;
    V view(item);
    EXPECT_EQ(Value((view.*get)()), row.absent);
    (view.*setter)(sample);
    EXPECT_EQ(item.userInfo().size(), 1u);
    EXPECT_EQ(item.userInfo().get(key), row.stored);
    for (const auto& [known, kind] : vocabulary()) {
      EXPECT_TRUE(known != key || kind == Value::Kind::none || kind == row.stored.kind());
    }
    EXPECT_EQ(Value((view.*get)()), row.sample);
    EXPECT_EQ(Value((view.*getOld)()), row.sample);
    (view.*setter)(A());
    EXPECT_EQ(item.userInfo().contains(key), !row.cleared.isNone());
    EXPECT_EQ(item.userInfo().get(key), row.cleared);
    item.setUserInfoObject(Dictionary{{"a", 1}}, key);
    EXPECT_EQ(Value((view.*get)()), (std::is_same_v<R, Value> ? item.userInfo().get(key) : row.wrong));
  }
}

template <typename V, typename A, typename R, typename Sample>
void object(Key key, Sample sample, Setter<V, A> set, Getter<V, R> get, Setter<V, A> setOld,
            Getter<V, R> getOld) {
  check(key, {sample, sample, {}, {}}, sample, set, get, setOld, getOld);
}
template <typename V>
void flag(Key key, Value whenFalse, Setter<V, bool> set, Getter<V, bool> get, Setter<V, bool> setOld,
          Getter<V, bool> getOld) {
  check(key, {true, true, whenFalse, false, false}, true, set, get, setOld, getOld);
}
template <typename V>
void number(Key key, int64_t absent, Setter<V, int64_t> set, Getter<V, int64_t> get,
            Setter<V, int64_t> setOld, Getter<V, int64_t> getOld) {
  check(key, {kUnknown, kUnknown, 0, absent, 0}, kUnknown, set, get, setOld, getOld);
}

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
      larkspan::kHelpAnchorKey, "_HELP_ANCHOR_", kTipPerformActionKey, "_ACTION_",
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

/// The accessors of one field and their older names.
#define FIELD(View, name, Name) &View::setLks_##name, &View::lks_##name, &View::set##Name, &View::name

TEST(Accessors, OfEveryItemStoreUnderTheirKeysAndHaveOlderNames) {
  using M = MessageItem;
  object(kNameKey, "text", FIELD(M, name, Name));
  object(kCategoryKey, "text", FIELD(M, category, Category));
  object(kIconFileTypeKey, "text", FIELD(M, iconFileType, IconFileType));
  object(larkspan::kHelpAnchorKey, "text", FIELD(M, helpAnchor, HelpAnchor));
  object(kHelpBookKey, "text", FIELD(M, helpBook, HelpBook));
  number(kTagKey, 0, FIELD(M, tag, Tag));
  number(kSizeKey, kUnknown, FIELD(M, size, Size));
  number(kAppSizeKey, 0, FIELD(M, appSize, AppSize));
  number(kDataSizeKey, 0, FIELD(M, dataSize, DataSize));
  number(kDeletableSizeKey, kUnknown, FIELD(M, deletableSize, DeletableSize));
  object(kReferenceKey, Value(Array{1, Dictionary()}), FIELD(M, reference, Reference));
  EXPECT_EQ(M::initWithName("A")->userInfo(), M::initWithLKSName("A")->userInfo());
}

TEST(Accessors, OfResourcesStoreFlagsAsTrueOrFalseAndShareThePanelsTexts) {
  using R = LKSResource;
  object(kVersionKey, "text", FIELD(R, versionString, VersionString));
  object(kConfirmTitleKey, "text", FIELD(R, deleteTitle, DeleteTitle));
  object(kConfirmMessageKey, "text", FIELD(R, deleteMessage, DeleteMessage));
  object(kConfirmOKKey, "text", FIELD(R, confirmButtonTitle, ConfirmButtonTitle));
  object(kConfirmCancelKey, "text", FIELD(R, cancelButtonTitle, CancelButtonTitle));
  object(kURLKey, *platform::URL::parse("https://h/x"), FIELD(R, URL, URL));
  object(kDateCreatedKey, Date{1, 2}, FIELD(R, dateCreated, DateCreated));
  object(kDateModifiedKey, Date{1, 2}, FIELD(R, dateModified, DateModified));
  object(kDateOpenedKey, Date{1, 2}, FIELD(R, dateLastOpened, DateLastOpened));
  flag(kDeletableKey, false, &R::setLks_deletable, &R::isDeletable, &R::setDeletable, &R::deletable);
  flag(kDownloadableKey, false, &R::setLks_downloadable, &R::isDownloadable, &R::setDownloadable,
       &R::downloadable);
  flag(kRevealableKey, false, &R::setLks_revealable, &R::isRevealable, &R::setRevealable, &R::revealable);
  flag(kShowViewedColumnKey, false, FIELD(R, hasViewedState, HasViewedState));
  check(kPercentViewedKey, {double{0.1f}, 0.1f, 0.0f, 0.0, 0.0}, 0.1, FIELD(R, percentViewed, PercentViewed));
  check(kPercentViewedKey, {true, 1.0f, 0.0f, false, false}, true, FIELD(R, hasBeenViewed, HasBeenViewed));
  R resource{MessageItem()};
  for (const auto& [fraction, viewed] :
       {std::pair(0.99995, true), {0.9999, false}, {1.0, true}, {-3.0, false}, {7.0, true}}) {
    resource.setLks_percentViewed(fraction);
    EXPECT_EQ(resource.lks_hasBeenViewed(), viewed) << fraction;
  }
  resource.setLks_deleteTitle("X");
  EXPECT_EQ(LKSConfirmPanel(resource).lks_confirmTitle(), "X");
}

TEST(Accessors, OfTipsShareTheCheckboxOfThePanel) {
  using T = LKSTipMessage;
  object(kSecondaryTitleKey, "text", FIELD(T, secondaryTitle, SecondaryTitle));
  object(kTipPerformActionKey, "text", FIELD(T, actionButtonTitle, ActionButtonTitle));
  object(kInfoTextKey, "text", FIELD(T, infoText, InfoText));
  object(kConfirmCheckboxKey, "text", FIELD(T, optionButtonTitle, OptionButtonTitle));
  object(kConfirmOptionMessageKey, "text", FIELD(T, optionMessage, OptionMessage));
  check(kConfirmCheckboxStateKey, {true, 1, 0, false, false}, true, &T::setLks_optionButtonChecked,
        &T::lks_isOptionButtonChecked, &T::setOptionButtonChecked, &T::isOptionButtonChecked);
  T tip = *T::initTipWithTitle("t");
  LKSConfirmPanel panel(tip);
  panel.setLks_confirmOptionCheckboxState(2);
  EXPECT_TRUE(tip.lks_isOptionButtonChecked());
}

TEST(Accessors, OfSummariesStoreFlagsAsTrueOrNotAtAll) {
  using S = LKSSummaryResource;
  object(kSummaryTitleKey, "text", FIELD(S, summaryTitle, SummaryTitle));
  object(kSummaryMessageKey, "text", FIELD(S, summaryMessage, SummaryMessage));
  object(kSummaryButtonKey, "text", FIELD(S, summaryButton, SummaryButton));
  object(kSummaryFooterKey, "text", &S::setLks_summaryFooter, &S::lks_summaryFooter, &S::setLks_summaryFooter,
         &S::summaryFooter);
  flag(kSkipConfirmationKey, Value(), FIELD(S, skipConfirmation, SkipConfirmation));
  flag(kIsDestructiveKey, Value(), FIELD(S, isDestructive, IsDestructive));
}

TEST(Accessors, OfPanelsAlwaysStoreNumbers) {
  using P = LKSConfirmPanel;
  object(kConfirmTitleKey, "text", FIELD(P, confirmTitle, ConfirmTitle));
  object(kConfirmMessageKey, "text", FIELD(P, confirmMessage, ConfirmMessage));
  object(kConfirmOKKey, "text", FIELD(P, confirmOKButtonTitle, ConfirmOKButtonTitle));
  object(kConfirmCancelKey, "text", FIELD(P, confirmCancelButtonTitle, ConfirmCancelButtonTitle));
  object(kConfirmOptionTitleKey, "text", FIELD(P, confirmOptionTitle, ConfirmOptionTitle));
  object(kConfirmOptionMessageKey, "text", FIELD(P, confirmOptionMessage, ConfirmOptionMessage));
  object(kConfirmCheckboxKey, "text", FIELD(P, confirmOptionCheckbox, ConfirmOptionCheckbox));
  number(kConfirmCheckboxStateKey, 0, FIELD(P, confirmOptionCheckboxState, ConfirmOptionCheckboxState));
  number(kConfirmMenuIndexKey, 0, FIELD(P, confirmOptionMenuIndex, ConfirmOptionMenuIndex));
  object(kConfirmMenuItemsKey, Array{"one", "two"}, FIELD(P, confirmOptionMenuItems, ConfirmOptionMenuItems));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
TEST(Accessors, ThatWereAlwaysBrokenStayBroken) {
  MessageItem item;
  item.setIcon(std::make_shared<platform::Object>());
  EXPECT_EQ(item.icon(), nullptr);
  EXPECT_THROW(item.setFpItem(platform::FileProviderItem::make("i", std::nullopt)), std::logic_error);
  EXPECT_THROW(item.setFpItem(nullptr), std::logic_error);
  EXPECT_EQ(item.userInfo().storage(), nullptr);
  const auto exhaust = [] {
    const rlimit stack{256 << 10, 256 << 10}, core{0, 0};
    setrlimit(RLIMIT_STACK, &stack);
    setrlimit(RLIMIT_CORE, &core);
    std::signal(SIGSEGV, SIG_DFL);  // without a sanitizer's report
    alarm(60);                      // an endless loop is no recursion
    LKSSummaryResource::initLKSSummaryResource().setSummaryFooter("x");
    _exit(0);
  };
  EXPECT_EXIT(exhaust(), testing::KilledBySignal(SIGSEGV), "");
}
#pragma GCC diagnostic pop

}  // namespace
}  // namespace larkspan
