#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSIconConstructor.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/base/Format.h"
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

TEST(MessageItem, StoresInPlaceAndLeavesAloneWhatItNeedNotTouch) {
  MessageItem item;
  item.setUserInfoObject(Value(), kNameKey);
  EXPECT_EQ(item.userInfo().storage(), nullptr) << "nothing under an absent key makes no dictionary";
  item.setLks_name("A");
  EXPECT_GE(item.userInfo().capacity(), 8u);
  const void* storage = item.userInfo().storage();
  item.setLks_tag(2);
  const Dictionary shared = item.userInfo();
  item.setLks_category(std::nullopt);
  EXPECT_EQ(item.userInfo().storage(), storage) << "nothing under an absent key copies no shared dictionary";

  LKSTipMessage tip(item);
  tip.setLks_name("B");
  EXPECT_EQ(item.lks_name(), "B") << "views share the item";
  EXPECT_EQ(shared, (Dictionary{{kNameKey, "A"}, {kTagKey, 2}}));
  EXPECT_TRUE(item == tip && MessageItem() != MessageItem());
  EXPECT_EQ(item.description(), "<ExtensionItem {_NAME_ = B, _TAG_ = 2}>");
}

TEST(MessageItem, OfARowIsMadeOnceForAllThatShowIt) {
  Items sent;
  for (int i = 0; i < 100; ++i) {
    sent.push_back(*MessageItem::initWithLKSName(std::to_string(i)));
    const std::string number = std::to_string(i);
    sent[i].setUserInfo({{kNameKey, "row " + number},
                         {kSizeKey, i},
                         {kTagKey, 1},
                         {kCategoryKey, "c"},
                         {kItemKindKey, number},
                         {kURLKey, URL::file("/row/" + number)},
                         {kDateCreatedKey, Date{i, 7}},
                         {kDateModifiedKey, i},
                         {kDeletableKey, i % 2 == 0},
                         {kRevealableKey, i % 2 == 0 ? Value(1) : Value(false)}});
  }
  sent[50].setLks_reference(Array{"no row holds an array"});
  const auto archive = KeyedArchiver::archivedData(arrayFromItems(sent));
  const Array array =
      KeyedUnarchiver::unarchivedValue(archive.data, ClassSet{ValueClass::array}.with<ExtensionItem>())
          .value.array();
  EXPECT_EQ(array.packed().size(), 3u) << "fifty rows, an item, and 49 rows";
  const Items items = itemsFromValue(array);
  ASSERT_EQ(items.size(), sent.size());
  const auto fields = [](const LKSResource& item) {
    return std::tuple(item.kind(), item.lks_name(), item.lks_category(), item.lks_helpBook(), item.lks_size(),
                      item.lks_URL(), item.lks_dateCreated(), item.lks_dateModified(), item.isDeletable(),
                      item.isRevealable());
  };
  const auto expectAsSent = [&] {
    for (std::size_t i = 0; i < sent.size(); ++i)
      EXPECT_TRUE(fields(LKSResource(items[i])) == fields(LKSResource(sent[i]))) << i;
  };
  expectAsSent();
  MessageItem changed = items[7];
  EXPECT_TRUE(changed == items[7] && changed != items[8] && changed != items[57]);
  for (MessageItem* item : {&changed, &sent[7]}) {
    item->setLks_size(-1);
    item->setLks_appSize(-2);
    item->setLks_name("changed");
  }
  EXPECT_EQ(items[7].lks_appSize(), -2) << "a key that no row has";
  expectAsSent();
  EXPECT_EQ(MessageItem(items[7].item()), changed);
  EXPECT_EQ(array[7].objectOf<ExtensionItem>(), changed.item()) << "the array's members are the same items";
  EXPECT_EQ(Value(array).description(), Value(arrayFromItems(sent)).description());
  EXPECT_FALSE(items[8].lks_fpItem());
  EXPECT_EQ(itemsFromValue(arrayFromItems(sent).part(7, 2)), Items(sent.begin() + 7, sent.begin() + 9));
}

TEST(MessageItem, MergesOnlyWhatItLacks) {
  MessageItem item = *MessageItem::initWithLKSName("mine");
  const Dictionary given{{kNameKey, "theirs"}, {kTagKey, 3}};
  item.addUserInfoObjectsFromDict(given);
  EXPECT_EQ(item.userInfo(), (Dictionary{{kNameKey, "mine"}, {kTagKey, 3}}));
  item.setUserInfo({{kNameKey, Value()}});
  item.addUserInfoObjectsFromDict(given);
  EXPECT_EQ(item.lks_name(), "theirs") << "an entry without a value does not win";
}

TEST(MessageItem, InitialisersMakeExactlyTheirEntriesOrNothing) {
  for (const OptionalText none : {OptionalText(), OptionalText("")}) {
    EXPECT_FALSE(MessageItem::initWithLKSName(none));
    EXPECT_FALSE(LKSCommand::initLKSCommandItem(none, "id"));
    EXPECT_FALSE(LKSTipMessage::initLKSTipWithTitle(none));
  }
  EXPECT_EQ(LKSTipMessage::initLKSTipWithTitle("T")->userInfo(),
            (Dictionary{{"_NAME_", "T"}, {"_KIND_", "TIP"}}));
  EXPECT_EQ(LKSSummaryResource::initSummaryResource().userInfo(), (Dictionary{{"_KIND_", "SUMMARY"}}));
  LKSCommand command = *LKSCommand::initLKSCommandItem("INFO?", "x");
  command.setLks_error(Error("d", 1));
  EXPECT_EQ(
      command.userInfo(),
      (Dictionary{
          {"_KIND_", "COMMAND"}, {"\u2022COMMAND", "INFO?"}, {"_EXTID_", "x"}, {"_ERROR_", Error("d", 1)}}));
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
  item.setFPItem(FileProviderItem::make("id", URL::file("/a")));
  EXPECT_EQ(item.lks_fpItem()->identifier(), "id");
  EXPECT_EQ(item.fpItem()->fileURL(), URL::file("/a"));
  item.setFPItem(FileProviderItem::make(std::string(33 << 20, 'x'), std::nullopt));
  EXPECT_FALSE(item.userInfo().contains("_FPITEM_"));
  const std::string unmade = std::string("\xD8\x1B\x82\x70") + "FileProviderItem\xA0";
  for (const Value& bad : {Value(), Value(Data::copy("\xFF")), Value("id"), Value(Data::copy(unmade))}) {
    item.setUserInfoObject(bad, kFPItemKey);
    EXPECT_EQ(item.lks_fpItem(), nullptr) << bad.description();
  }
  EXPECT_TRUE(log.lines().empty());
}

MessageItem itemWith(const Value& icon) {
  MessageItem item;
  item.setUserInfoObject(icon, kIconConstructor);
  return item;
}

/// An archive of the class with these fields, given as the bytes of a CBOR map.
Value archived(const std::string& fields) {
  return Data::copy("\xD8\x1B\x82\x72LKSIconConstructor" + fields);
}

TEST(LKSIconConstructor, TravelsWithinAnItem) {
  const tests::CapturedLog log;
  using Icon = LKSIconConstructor;
  const std::pair<std::shared_ptr<Icon>, const char*> cases[] = {
      {Icon::initWithImageNamed(std::nullopt), "type: 0 - string: (null) - url: (null)>"},
      {Icon::initWithURL(URL::file("/a b")), "type: 1 - string: (null) - url: file:///a%20b>"},
      {Icon::initWithBundleID("id"), "type: 2 - string: id - url: (null)>"},
  };
  for (const auto& [made, ending] : cases) {
    MessageItem item;
    item.setIconConstructor(made);
    item.setLks_iconConstructor(nullptr);  // keeps what is there
    const auto icon = item.iconConstructor();
    EXPECT_EQ(icon->description(), format("<LKSIconConstructor %p - %s", icon.get(), ending));
  }
  cases[0].first->setString(std::string(33 << 20, 'x'));
  MessageItem().setLks_iconConstructor(cases[0].first);
  EXPECT_TRUE(log.console().at(0).starts_with("Failed to archive LKSIconConstructor: Error Domain=Archive"));
}

TEST(LKSIconConstructor, AcceptsUnknownTypesAndFailsAsAWholeOnForbiddenClasses) {
  const tests::CapturedLog log;
  EXPECT_EQ(itemWith(archived("\xA1\x64type\x18\x4D")).lks_iconConstructor()->type(), 77);
  EXPECT_EQ(itemWith(archived("\xA0")).lks_iconConstructor()->type(), 0);
  for (const Value& nothing : {Value(), Value(Data::copy("")), Value("text")})
    EXPECT_EQ(itemWith(nothing).lks_iconConstructor(), nullptr);
  EXPECT_TRUE(log.lines().empty()) << "absent, empty or no data: nothing to say";

  const std::string wrapper = std::string("\xA1\x6E") + "fileURLWrapper";
  for (const std::string& fields :
       {std::string("\xA1\x66string\x05"), std::string("\xA0\xA0"),
        wrapper + "\xD8\x1B\x82\x70" + "FileProviderItem\xA1\x6Aidentifier\x61i"}) {
    const tests::CapturedLog failure;
    EXPECT_EQ(itemWith(archived(fields)).lks_iconConstructor(), nullptr) << testing::PrintToString(fields);
    EXPECT_TRUE(failure.console().at(0).starts_with("Failed to unarchive LKSIconConstructor: Error Domain="));
  }
}

}  // namespace
}  // namespace larkspan
