#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>

namespace larkspan {
namespace {

using namespace platform;

constexpr int64_t kUnknown = LKSExtensionTotalSpaceUsedUnknown,
                  kMaximum = std::numeric_limits<int64_t>::max();

TEST(MessageItem, StoresInPlaceCopiesWhatIsSharedAndLeavesAloneWhatItNeedNotTouch) {
  MessageItem item;
  item.setUserInfoObject(Value(), kNameKey);
  EXPECT_EQ(item.userInfo().storage(), nullptr) << "nothing under an absent key makes no dictionary";
  item.setLks_name("A");
  EXPECT_GE(item.userInfo().capacity(), 8u);
  const void* storage = item.userInfo().storage();
  item.setLks_tag(2);
  item.setLks_category(std::nullopt);
  EXPECT_EQ(item.userInfo().storage(), storage);

  const Dictionary shared = item.userInfo();
  item.setLks_category(std::nullopt);
  EXPECT_EQ(item.userInfo().storage(), storage) << "nothing under an absent key copies no shared dictionary";
  item.setLks_name(std::nullopt);
  EXPECT_NE(item.userInfo().storage(), storage);
  EXPECT_EQ(item.userInfo(), (Dictionary{{kTagKey, 2}}));
  EXPECT_EQ(shared, (Dictionary{{kNameKey, "A"}, {kTagKey, 2}}));

  const MessageItem view = item;
  LKSTipMessage tip(view);
  tip.setLks_name("B");
  EXPECT_EQ(item.lks_name(), "B") << "views share the item";
  EXPECT_TRUE(item == tip && MessageItem() != MessageItem());
  EXPECT_EQ(item.description(), "<ExtensionItem {_TAG_ = 2, _NAME_ = B}>");
}

TEST(MessageItem, MergesOnlyWhatItLacks) {
  MessageItem item = *MessageItem::initWithLKSName("mine");
  const void* storage = item.userInfo().storage();
  item.addUserInfoObjectsFromDict({});
  EXPECT_EQ(item.userInfo().storage(), storage);
  const Dictionary given{{kNameKey, "theirs"}, {kTagKey, 3}};
  item.addUserInfoObjectsFromDict(given);
  EXPECT_EQ(item.userInfo(), (Dictionary{{kNameKey, "mine"}, {kTagKey, 3}}));
  item.setUserInfo({{kNameKey, Value()}});
  item.addUserInfoObjectsFromDict(given);
  EXPECT_EQ(item.lks_name(), "theirs") << "an entry without a value does not win";
  MessageItem fresh;
  fresh.addUserInfoObjectsFromDict(given);
  EXPECT_EQ(fresh.userInfo(), given);
}

TEST(MessageItem, InitialisersMakeExactlyTheirEntriesOrNothing) {
  for (const OptionalText none : {OptionalText(), OptionalText("")}) {
    EXPECT_FALSE(MessageItem::initWithLKSName(none));
    EXPECT_FALSE(LKSCommand::initLKSCommandItem(none, "id"));
    EXPECT_FALSE(LKSTipMessage::initLKSTipWithTitle(none));
  }
  EXPECT_EQ(MessageItem::initWithLKSName("A")->userInfo(), (Dictionary{{"_NAME_", "A"}}));
  EXPECT_EQ(LKSTipMessage::initLKSTipWithTitle("T")->userInfo(),
            (Dictionary{{"_NAME_", "T"}, {"_KIND_", "TIP"}}));
  for (const auto& summary :
       {LKSSummaryResource::initLKSSummaryResource(), LKSSummaryResource::initSummaryResource()}) {
    EXPECT_EQ(summary.userInfo(), (Dictionary{{"_KIND_", "SUMMARY"}}));
  }
  EXPECT_EQ(LKSCommand::initLKSCommandItem("TIPS?")->userInfo(),
            (Dictionary{{"_KIND_", "COMMAND"}, {"\u2022COMMAND", "TIPS?"}}));
  EXPECT_EQ(LKSCommand(MessageItem()).lks_commandType(), std::nullopt);
  EXPECT_EQ(LKSCommand(MessageItem()).lks_extensionID(), std::nullopt);
  LKSCommand command = *LKSCommand::initLKSCommandItem("INFO?", "");
  EXPECT_EQ(command.lks_commandType(), "INFO?");
  EXPECT_EQ(command.lks_extensionID(), "");
  EXPECT_TRUE(command.userInfo().get("COMMAND").isNone());
  command.setLks_error(Error("d", 1));
  EXPECT_EQ(command.userInfo().get("_ERROR_"), Value(Error("d", 1)));
  EXPECT_EQ(command.lks_error(), Error("d", 1));
  command.setLks_error(std::nullopt);
  EXPECT_FALSE(command.userInfo().contains("_ERROR_"));
}

TEST(MessageItem, WorksOutItsSizes) {
  const Value none;
  // Size, application part, data part, deletable size; then what is read of the whole and the deletable size.
  // clang-format off
  const std::tuple<Value, Value, Value, Value, int64_t, int64_t> cases[] = {
      {none, none, none, none, kUnknown, kUnknown}, {500, 100, 0, none, 100, 100},
      {500, none, none, none, 500, 500}, {7, 0, 0, none, 7, 7}, {500, 0, 1, none, 1, 1},
      {500, 100, 20, 5, 120, 5}, {none, 0, none, none, kUnknown, kUnknown},
      {500, -100, -1, none, 500, 500}, {500, 5, -10, none, -5, -5},
      {500, kUnknown, 1, none, kUnknown + 1, kUnknown + 1},
      {500, kMaximum, kMaximum, none, kMaximum, kMaximum}, {500, kMaximum, 1, none, kMaximum, kMaximum},
      {-3, none, none, 0, -3, 0}, {10, none, none, -1, 10, -1}, {"text", none, none, "text", 0, 0},
      {1e30, none, none, 2.9, kMaximum, 2}};
  // clang-format on
  for (const auto& [size, app, data, deletable, expected, expectedDeletable] : cases) {
    MessageItem item;
    item.setUserInfo(
        {{kSizeKey, size}, {kAppSizeKey, app}, {kDataSizeKey, data}, {kDeletableSizeKey, deletable}});
    EXPECT_EQ(item.lks_size(), expected) << item.description();
    EXPECT_EQ(item.lks_deletableSize(), expectedDeletable) << item.description();
  }
}

TEST(MessageItem, CarriesAFileProviderItemAndDropsABadOneSilently) {
  const tests::CapturedLog log;
  MessageItem item;
  EXPECT_EQ(item.lks_fpItem(), nullptr);
  item.setFPItem(FileProviderItem::make("id", URL::file("/a")));
  EXPECT_EQ(item.lks_fpItem()->identifier(), "id");
  EXPECT_EQ(item.fpItem()->fileURL(), URL::file("/a"));
  item.setFPItem(FileProviderItem::make(std::string(33 << 20, 'x'), std::nullopt));
  EXPECT_FALSE(item.userInfo().contains("_FPITEM_")) << "too large to archive";
  item.setFPItem(FileProviderItem::make("id", std::nullopt));
  EXPECT_EQ(item.lks_fpItem()->fileURL(), std::nullopt);
  item.setFPItem(nullptr);
  EXPECT_FALSE(item.userInfo().contains("_FPITEM_"));
  const std::string unmade = std::string("\xD8\x1B\x82\x70") + "FileProviderItem\xA0";
  for (const Value& bad : {Value(Data::copy("\xFF")), Value("id"), Value(Data::copy(unmade))}) {
    item.setUserInfoObject(bad, kFPItemKey);
    EXPECT_EQ(item.lks_fpItem(), nullptr) << bad.description();
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(MessageItem, TravelsWholeAndIsCopiedDeeply) {
  MessageItem inner = *MessageItem::initWithLKSName("inner"), outer;
  outer.setLks_reference(
      Array{inner.item(), 1, 2.5f, "\u2022", Data::copy("d"), Date{1, 2}, URL::file("/a")});
  const auto archive = KeyedArchiver::archivedData(arrayFromItems({outer, inner}));
  ASSERT_FALSE(archive.error);
  const ClassSet classes = ClassSet{ValueClass::array}.with<ExtensionItem>();
  const auto read = KeyedUnarchiver::unarchivedValue(archive.data, classes);
  ASSERT_FALSE(read.error) << read.error->description();
  const Items items = itemsFromValue(read.value);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].description(), outer.description());
  EXPECT_EQ(items[1].userInfo(), inner.userInfo());

  const auto copy = std::dynamic_pointer_cast<ExtensionItem>(outer.item()->deepCopy());
  inner.setLks_name("changed");
  EXPECT_EQ(itemsFromValue(copy->userInfo().get(kReferenceKey))[0].lks_name(), "inner");
  EXPECT_TRUE(itemsFromValue(Array{1, "a", Value()}).empty());
  EXPECT_TRUE(itemsFromValue("no array").empty());
}

}  // namespace
}  // namespace larkspan
