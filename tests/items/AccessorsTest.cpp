#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <type_traits>

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

template <typename Sample, typename... Accessors>
void object(Key key, Sample sample, Accessors... accessors) {
  check(key, {sample, sample, {}, {}}, sample, accessors...);
}
template <typename... Accessors>
void flag(Key key, Value whenFalse, Accessors... accessors) {
  check(key, {true, true, whenFalse, false, false}, true, accessors...);
}
template <typename... Accessors>
void number(Key key, int64_t absent, Accessors... accessors) {
  check(key, {kUnknown, kUnknown, 0, absent, 0}, kUnknown, accessors...);
}

TEST(Vocabulary, IsExactlyWhatWasPublished) {
  std::set<std::string> keys;
  for (const auto& entry : vocabulary()) EXPECT_TRUE(keys.insert(std::string(entry.key)).second);
  std::string all;
  for (const std::string& key : keys) all += key + ' ';
  EXPECT_EQ(all,
            "_%VIEWED_ _ACTION_ _APPPATHS_ _APPURL_ _APP_SIZE_ _BUNDLE_ID_ _CATEGORIES_ _CATEGORY_ "
            "_CATEGORY_NAMES_ _CONFIRM_CANCEL_ _CONFIRM_MESSAGE_ _CONFIRM_OK_ _CONFIRM_TITLE_ _CREATED_ "
            "_DATA_SIZE_ _DELETABLE_ _DELETABLE_SIZE_ _DOWNLOADABLE_ _ERROR_ _EXTID_ _FPITEM_ "
            "_HEADER_BUTTON_ _HEADER_MESSAGE_ _HELP_ANCHOR_ _HELP_BOOK_ _HIDDEN_ _HIDE_PATHS_ _HIDE_REVEAL_ "
            "_ICON_ _ICON_CONSTRUCTOR_ _ICON_FILE_TYPE_ _INFOTEXT_ _ISSUMMARY_ _IS_DESTRUCTIVE "
            "_IS_OVERRIDE_ _KIND_ _MODIFIED_ _NAME_ _OPENED_ _OPTION_CHKBOX_ _OPTION_CHKBOX_STATE_ "
            "_OPTION_MENU _OPTION_MENU_INDEX _OPTION_MESSAGE_ _OPTION_TITLE_ _REFDATA_ _REVEALABLE_ "
            "_REVEAL_TITLE_ _SHOW_VIEWED_ _SIZE_ _SKIP_CONFIRMATION_ _SUMMARY_BUTTON_ _SUMMARY_FOOTER_ "
            "_SUMMARY_MSG_ _SUMMARY_TITLE_ _TAG_ _TITLE_ALT_ _UNINSTALLER_BUNDLE_ID_ _URL_ _VERSION_ "
            "_VIEWED_ •COMMAND ");
  EXPECT_EQ(static_cast<uint64_t>(kUnknown), 0x8000000000000000u);
  EXPECT_EQ(LKSExtensionTotalSpaceUsedGreaterThanZero, kUnknown);
}

/// The accessors of one field and their older names.
#define FIELD(View, name, Name) &View::setLks_##name, &View::lks_##name, &View::set##Name, &View::name

TEST(Accessors, StoreUnderTheirKeysAndHaveOlderNames) {
  using M = MessageItem;
  object("_ICON_FILE_TYPE_", "text", FIELD(M, iconFileType, IconFileType));
  object("_HELP_ANCHOR_", "text", FIELD(M, helpAnchor, HelpAnchor));
  object("_HELP_BOOK_", "text", FIELD(M, helpBook, HelpBook));
  number("_TAG_", 0, FIELD(M, tag, Tag));
  number("_APP_SIZE_", 0, FIELD(M, appSize, AppSize));
  number("_DATA_SIZE_", 0, FIELD(M, dataSize, DataSize));
  number("_DELETABLE_SIZE_", kUnknown, FIELD(M, deletableSize, DeletableSize));

  using R = LKSResource;
  object("_VERSION_", "text", FIELD(R, versionString, VersionString));
  object("_CONFIRM_TITLE_", "text", FIELD(R, deleteTitle, DeleteTitle));
  object("_CONFIRM_MESSAGE_", "text", FIELD(R, deleteMessage, DeleteMessage));
  object("_CONFIRM_OK_", "text", FIELD(R, confirmButtonTitle, ConfirmButtonTitle));
  object("_CONFIRM_CANCEL_", "text", FIELD(R, cancelButtonTitle, CancelButtonTitle));
  object("_CREATED_", Date{1, 2}, FIELD(R, dateCreated, DateCreated));
  object("_OPENED_", Date{1, 2}, FIELD(R, dateLastOpened, DateLastOpened));
  flag("_DOWNLOADABLE_", false, &R::setLks_downloadable, &R::isDownloadable, &R::setDownloadable,
       &R::downloadable);
  flag("_REVEALABLE_", false, &R::setLks_revealable, &R::isRevealable, &R::setRevealable, &R::revealable);
  flag("_SHOW_VIEWED_", false, FIELD(R, hasViewedState, HasViewedState));
  check("_%VIEWED_", {double{0.1f}, 0.1f, 0.0f, 0.0, 0.0}, 0.1, FIELD(R, percentViewed, PercentViewed));

  using T = LKSTipMessage;
  object("_OPTION_CHKBOX_", "text", FIELD(T, optionButtonTitle, OptionButtonTitle));
  object("_OPTION_MESSAGE_", "text", FIELD(T, optionMessage, OptionMessage));
  check("_OPTION_CHKBOX_STATE_", {true, 1, 0, false, false}, true, &T::setLks_optionButtonChecked,
        &T::lks_isOptionButtonChecked, &T::setOptionButtonChecked, &T::isOptionButtonChecked);

  using S = LKSSummaryResource;
  object("_SUMMARY_TITLE_", "text", FIELD(S, summaryTitle, SummaryTitle));
  object("_SUMMARY_BUTTON_", "text", FIELD(S, summaryButton, SummaryButton));
  object("_SUMMARY_FOOTER_", "text", &S::setLks_summaryFooter, &S::lks_summaryFooter,
         &S::setLks_summaryFooter, &S::summaryFooter);
  flag("_SKIP_CONFIRMATION_", Value(), FIELD(S, skipConfirmation, SkipConfirmation));
  flag("_IS_DESTRUCTIVE", Value(), FIELD(S, isDestructive, IsDestructive));

  using P = LKSConfirmPanel;  // Its other texts are those above.
  object("_OPTION_TITLE_", "text", FIELD(P, confirmOptionTitle, ConfirmOptionTitle));
  number("_OPTION_CHKBOX_STATE_", 0, FIELD(P, confirmOptionCheckboxState, ConfirmOptionCheckboxState));
  number("_OPTION_MENU_INDEX", 0, FIELD(P, confirmOptionMenuIndex, ConfirmOptionMenuIndex));
  object("_OPTION_MENU", Array{"one", "two"}, FIELD(P, confirmOptionMenuItems, ConfirmOptionMenuItems));
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
}
#pragma GCC diagnostic pop

}  // namespace
}  // namespace larkspan
