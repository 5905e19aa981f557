#include "larkspan/items/LKSResource.h"
#include "larkspan/platform/desktop/LastUsed.h"
#include "larkspan/platform/files/Installed.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using platform::Date;
using platform::Dictionary;
using platform::ResourceValues;
using platform::URL;

TEST(Resource, IsMadeOfAFileOrOfANameOrNotAtAll) {
  struct Facts : platform::FileFacts {
    std::optional<platform::Error> read(const URL&, ResourceValues& result) const override {
      if (error) return error;
      result = values;
      return std::nullopt;
    }
    ResourceValues values{"Shown", 4096, Date{1, 0}, Date{2, 5}, false, false};
    std::optional<platform::Error> error;
  } facts;
  const platform::Installed<platform::FileFacts> installed(facts);
  const URL url = URL::file("/a/real.txt");
  Dictionary expected{{"_URL_", url},
                      {"_KIND_", "RESOURCE"},
                      {"_NAME_", "Shown"},
                      {"_CREATED_", Date{1, 0}},
                      {"_MODIFIED_", Date{2, 5}},
                      {"_OPENED_", Date{2, 5}},
                      {"_SIZE_", int64_t{4096}},
                      {"_REVEALABLE_", true},
                      {"_DELETABLE_", true}};
  EXPECT_EQ(LKSResource::initLKSResourceItemWithFileURL(url)->userInfo(), expected);
  facts.values = {};
  EXPECT_EQ(LKSResource::initLKSResourceItemWithFileURL(url)->lks_name(), "real.txt");
  facts.error = platform::Error("test", 1);
  EXPECT_EQ(LKSResource::initLKSResourceItemWithFileURL(url)->userInfo(), (Dictionary{{"_URL_", url}}));
  for (const char* other : {"https://example.org/a", "file://elsewhere/a", "a"}) {
    EXPECT_FALSE(LKSResource::initLKSResourceItemWithFileURL(*URL::parse(other))) << other;
  }
  EXPECT_FALSE(LKSResource::initLKSResourceWithFileAtPath(""));
  for (const char* path : {"/a//./x/../real.txt", "/../a/real.txt", "/a/real.txt/"}) {
    EXPECT_EQ(LKSResource::initResourceItemWithFilePath(path)->lks_URL(), url) << path;
  }
  EXPECT_EQ(LKSResource::initResourceItemWithFilePath("~root/x")->lks_URL(), URL::file("/root/x"));
  EXPECT_EQ(LKSResource::initLKSResourceItemWithName(std::nullopt).userInfo(),
            (Dictionary{{"_NAME_", ""}, {"_KIND_", "RESOURCE"}}));
}

TEST(Resource, WasLastOpenedWhenTheDesktopSaysSoForFoldersAndWhenItChangedForFiles) {
  struct Used : platform::LastUsed {
    std::optional<Date> lastUsedDate(const URL&) const override { return Date{99, 0}; }
  } used;
  ManifestTree tree;
  const URL file = URL::file(tree.write("f", "x"));
  const platform::Installed<platform::LastUsed> installed(used);
  EXPECT_EQ(LKSResource::lks_lastOpenedDateForURL(URL::file(tree.root)), (Date{99, 0}));
  EXPECT_EQ(LKSResource::lks_lastOpenedDateForURL(file),
            LKSResource::initLKSResourceItemWithFileURL(file)->lks_dateModified());
  EXPECT_FALSE(LKSResource::lks_lastOpenedDateForURL(URL::file(tree.path("absent"))));
}

TEST(Resource, EqualsAnotherOfTheSamePathElseOnlyItself) {
  const auto with = [](std::optional<URL> url) {
    LKSResource item{MessageItem()};
    item.setLks_URL(url);
    return item;
  };
  const auto a = with(URL::file("/a b")), none = with(std::nullopt);
  EXPECT_TRUE(a.isEqualToLKSExtension(with(URL::parse("file://localhost/a%20b/"))));
  EXPECT_FALSE(a.isEqualToExtension(with(URL::file("/a"))) || a.isEqualToLKSExtension(none));
  EXPECT_TRUE(none.isEqualToLKSExtension(none));
  EXPECT_FALSE(none.isEqualToLKSExtension(with(std::nullopt)));
}

TEST(Resource, HasItsThresholdAndItsOddReads) {
  LKSResource item = LKSResource::initLKSResourceItemWithName("x");
  for (const auto& [fraction, viewed] :
       {std::pair(0.99995, true), {0.9999, false}, {1.0, true}, {-5.0, false}}) {
    item.setLks_percentViewed(fraction);
    EXPECT_EQ(item.lks_hasBeenViewed(), viewed) << fraction;
    EXPECT_EQ(item.lks_percentViewed(), static_cast<double>(static_cast<float>(fraction)));
  }
  item.setLks_revealButtonTitle("");
  EXPECT_TRUE(item.userInfo().contains(kRevealButtonTitleKey) && !item.lks_revealButtonTitle());
}

TEST(Resource, SizesAndDeletesWhatItNames) {
  ManifestTree tree;
  tree.write("d/one", std::string(10'000, 'x'));
  const URL folder = URL::file(tree.path("d"));
  const int64_t bytes = LKSResource::lks_calculateSizeOfItemAtURL(folder.appending("one"));
  EXPECT_GE(bytes, 10'000);
  EXPECT_EQ(LKSResource::lks_calculateSizeOfItemAtURL(folder), bytes);
  CapturedLog log;
  EXPECT_EQ(LKSResource::lks_calculateSizeOfFolderAtPath("/nowhere"), 0);
  EXPECT_EQ(log.system(), std::vector<std::string>{"Error 2 sizing path: /nowhere"});

  LKSResource item = *LKSResource::initLKSResourceItemWithFileURL(folder);
  EXPECT_THROW(LKSResource::lks_deleteResourceItems({item, LKSResource::initLKSResourceItemWithName("x")}),
               std::invalid_argument);
  const auto absent = LKSResource::initLKSResourceItemWithFileURL(folder.appending("absent"));
  LKSResource::lks_deleteResourceItems({item, *absent});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (log.console().empty() && std::chrono::steady_clock::now() < deadline) sched_yield();
  EXPECT_TRUE(log.console().at(0).starts_with("Failed to remove items: ")) << log.console()[0];
  EXPECT_FALSE(std::filesystem::exists(tree.path("d")));
}

}  // namespace
}  // namespace larkspan::tests
