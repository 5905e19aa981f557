#include "larkspan/items/LKSIconConstructor.h"
#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/base/Format.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace larkspan {
namespace {

using platform::Data;
using platform::URL;
using platform::Value;

/// An item that holds an archive of the class with these fields, given as the bytes of a CBOR map.
MessageItem itemWith(std::string_view fields) {
  MessageItem item;
  item.setUserInfoObject(Data::copy("\xD8\x1B\x82\x72LKSIconConstructor" + std::string(fields)),
                         kIconConstructor);
  return item;
}

TEST(LKSIconConstructor, TravelsWithinAnItem) {
  const tests::CapturedLog log;
  using Icon = LKSIconConstructor;
  const std::pair<std::shared_ptr<Icon>, const char*> cases[] = {
      {Icon::initWithImageNamed("disk"), "type: 0 - string: disk - url: (null)>"},
      {Icon::initWithImageNamed(std::nullopt), "type: 0 - string: (null) - url: (null)>"},
      {Icon::initWithURL(URL::file("/a b")), "type: 1 - string: (null) - url: file:///a%20b>"},
      {Icon::initWithURL(std::nullopt), "type: 1 - string: (null) - url: (null)>"},
      {Icon::initWithBundleID("org.x"), "type: 2 - string: org.x - url: (null)>"},
      {Icon::initWithBundleID(""), "type: 2 - string:  - url: (null)>"},
  };
  for (const auto& [made, ending] : cases) {
    MessageItem item;
    item.setIconConstructor(made);
    item.setLks_iconConstructor(nullptr);  // keeps what is there
    ASSERT_TRUE(item.iconConstructor());
    for (const auto& icon : {made, item.lks_iconConstructor()}) {
      EXPECT_EQ(icon->description(), platform::format("<LKSIconConstructor %p - %s", icon.get(), ending));
      EXPECT_TRUE(!icon->fileURLWrapper() || icon->fileURLWrapper()->isReadonly());
    }
  }
  EXPECT_TRUE(LKSIconConstructor::supportsSecureCoding());
  EXPECT_TRUE(log.lines().empty());
}

TEST(LKSIconConstructor, AcceptsUnknownTypesAndFailsAsAWholeOnForbiddenClasses) {
  const tests::CapturedLog log;
  EXPECT_EQ(itemWith("\xA1\x64type\x18\x4D").lks_iconConstructor()->type(), 77);
  EXPECT_EQ(itemWith("\xA1\x64type\x20").lks_iconConstructor()->type(), -1);
  const auto empty = itemWith("\xA0").lks_iconConstructor();
  EXPECT_TRUE(empty && empty->type() == 0 && !empty->string() && !empty->fileURLWrapper());
  MessageItem none;
  for (const Value& nothing : {Value(), Value(Data::copy("")), Value("text"), Value(7)}) {
    none.setUserInfoObject(nothing, kIconConstructor);
    EXPECT_EQ(none.lks_iconConstructor(), nullptr);
  }
  EXPECT_TRUE(log.lines().empty()) << "absent, empty or no data: nothing to say";

  const std::string wrapper = std::string("\xA1\x6E") + "fileURLWrapper";
  const std::string forbidden[] = {"\xA1\x66string\x05",
                                   "\xA1\x66string\x81\x61s",
                                   "\xA1\x64type",
                                   "\xA0\xA0",
                                   wrapper + "\x61s",
                                   wrapper + "\xD8\x20\x67" + "file:/a",
                                   wrapper + "\xD8\x1B\x82\x78\x18SecurityScopedURLWrapper\xA0",
                                   wrapper + "\xD8\x1B\x82\x70" + "FileProviderItem\xA1\x6Aidentifier\x61i"};
  std::size_t lines = 0;
  for (const std::string& fields : forbidden) {
    const MessageItem item = itemWith(fields);
    EXPECT_EQ(item.lks_iconConstructor(), nullptr) << testing::PrintToString(fields);
    ASSERT_EQ(log.console().size(), ++lines) << testing::PrintToString(fields);
    EXPECT_TRUE(log.console().back().starts_with(
        "Failed to unarchive LKSIconConstructor: Error Domain=Archive Code="))
        << log.console().back();
    EXPECT_TRUE(item.userInfo().contains(kIconConstructor));
  }
  EXPECT_TRUE(log.system().empty());
}

TEST(LKSIconConstructor, RemovesItsKeyWhenItCannotBeArchived) {
  const tests::CapturedLog log;
  MessageItem item;
  const auto icon = LKSIconConstructor::initWithBundleID("org.x");
  item.setLks_iconConstructor(icon);
  icon->setString(std::string(33 << 20, 'x'));
  item.setLks_iconConstructor(icon);
  EXPECT_FALSE(item.userInfo().contains("_ICON_CONSTRUCTOR_"));
  ASSERT_EQ(log.console().size(), 1u);
  EXPECT_TRUE(
      log.console()[0].starts_with("Failed to archive LKSIconConstructor: Error Domain=Archive Code=2"));
}

}  // namespace
}  // namespace larkspan
