#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <type_traits>

#include <sys/resource.h>
#include <unistd.h>

namespace larkspan {
namespace {

using namespace platform;

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
    const auto reads = [&](const Value& expected) {
      EXPECT_EQ(Value((view.*get)()), expected);
      EXPECT_EQ(Value((view.*getOld)()), expected);
    };
    reads(row.absent);
    (view.*setter)(sample);
    EXPECT_EQ(item.userInfo().size(), 1u);
    EXPECT_EQ(item.userInfo().get(key), row.stored);
    for (const auto& [known, kind] : vocabulary()) {
      EXPECT_TRUE(known != key || kind == Value::Kind::none || kind == row.stored.kind());
    }
    reads(row.sample);
    (view.*setter)(A());
    EXPECT_EQ(item.userInfo().contains(key), !row.cleared.isNone());
    EXPECT_EQ(item.userInfo().get(key), row.cleared);
    for (const Value& wrong : {Value(Dictionary{{"a", 1}}), Value(view.item())}) {
      item.setUserInfoObject(wrong, key);
      reads(std::is_same_v<R, Value> ? wrong : row.wrong);
    }
    item.setUserInfo({});  // it may hold itself
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
  for (const int64_t sample : {int64_t{7}, int64_t{-1}, LKSExtensionTotalSpaceUsedUnknown}) {
    check(key, {sample, sample, 0, absent, 0}, sample, set, get, setOld, getOld);
  }
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
  number(kSizeKey, LKSExtensionTotalSpaceUsedUnknown, FIELD(M, size, Size));
  number(kAppSizeKey, 0, FIELD(M, appSize, AppSize));
  number(kDataSizeKey, 0, FIELD(M, dataSize, DataSize));
  number(kDeletableSizeKey, LKSExtensionTotalSpaceUsedUnknown, FIELD(M, deletableSize, DeletableSize));
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
    rlimit limit{256 << 10, 256 << 10};
    setrlimit(RLIMIT_STACK, &limit);
    limit = {0, 0};
    setrlimit(RLIMIT_CORE, &limit);
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
