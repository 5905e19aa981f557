#include "larkspan/platform/files/CacheDirTag.h"
#include "tests/extensions/ExtensionTest.h"

namespace larkspan::tests {
namespace {

using platform::URL;

class Caches : public ExtensionTest {
 protected:
  Caches() : ExtensionTest("caches") { tree.shell("mkdir cache outside && touch outside/precious"); }

  const std::string cache = tree / "cache";
  const ScopedVariable home{"XDG_CACHE_HOME", cache.c_str()};
};

const std::string kWriteTag =
    "printf '" + std::string(platform::kCacheDirTagSignature) + "\\n# a comment' >cache/tagged/CACHEDIR.TAG;";

TEST_F(Caches, ListsWhatLiesInTheCacheDirectoryWithItsSizeAndCategory) {
  tree.shell(
      "mkdir outside/x; cd cache; mkdir -p app/deep tagged falsely linked thumbnails/normal 'odd %2F' empty;"
      "mkfifo pipe; ln -s ../outside link; ln -s nothing dangling; ln -s ../../outside app/link;"
      "ln -s ../tagged/CACHEDIR.TAG linked; head -c 70000 /dev/zero >app/deep/f; ln app/deep/f app/again; "
      "echo Signature >falsely/CACHEDIR.TAG;"
      "head -c 5000 /dev/zero | tee loose.db thumbnails/normal/a.png >'odd %2F/x'; cd ..;" +
      kWriteTag);
  const auto found = resources();
  int64_t total = 0;
  std::string listed;
  for (const auto& [path, resource] : found) {
    const std::string name = *resource.lks_name();
    listed += name + ":" + resource.lks_category().value_or("") + " ";
    const std::string own = name == "loose.db" ? "0" : "$(stat -c '%b * %B' '" + path + "')";
    const std::string du = tree.shell("echo -n $(($(du -xsB1 '" + path + "' | cut -f1) - " + own + "))");
    EXPECT_EQ(du, std::to_string(resource.lks_size())) << name;
    EXPECT_EQ(URL::file(cache + "/" + name), resource.lks_URL());
    total += resource.lks_size();
  }
  const std::string folders = "app:applications empty:applications falsely:applications linked:applications ";
  EXPECT_EQ(folders + "loose.db:applications odd %2F:applications tagged:tagged thumbnails:thumbnails ",
            listed);
  const auto information = ask<LKSFetchExtensionInfoOperation>().at(0).userInfo();
  EXPECT_EQ(total, information.get(kSizeKey).integerValue());
}

TEST_F(Caches, EmptiesWhatIsItsOwnAndTellsTheHost) {
  tree.shell(
      "mkdir -p cache/app/deep cache/tagged/deep; touch cache/app/deep/x cache/tagged/x cache/loose;"
      "ln -s ../../outside cache/app/way;" +
      kWriteTag);
  const auto before = resources();
  EXPECT_TRUE(ask<LKSShowResourceOperation>({before.at("cache/loose")}).empty() && error.empty());
  EXPECT_TRUE(tree.has("cache/loose"));
  ask<LKSDeleteResourcesOperation>(
      {before.at("cache/app"), before.at("cache/tagged"), before.at("cache/loose")});
  EXPECT_EQ("", error);
  EXPECT_EQ("./cache ./cache/app ./cache/tagged ./cache/tagged/CACHEDIR.TAG ./outside ./outside/precious ",
            tree.list());
  expectNotice(LKSOpaqueExtensionBytesUsedDidChangeNotification);
  expectNotice(LKSOpaqueExtensionResourcesDidChangeNotification);
  EXPECT_EQ(0, resources().at("cache/app").lks_size()) << "the walk from before is not used again";
  EXPECT_TRUE(ask<LKSPerformHeaderActionOperation>().empty() && error.empty());
}

TEST_F(Caches, RefusesToDeleteAnythingElse) {
  tree.shell("cd cache; mkdir -p app/inner fine mount; touch app/inner/x fine/x; ln -s ../outside link");
  const bool isMounted = tree.mountVolume("cache/mount");
  std::vector<std::string> bad{"https://a" + cache + "/app", "file://a" + cache + "/app", cache + "/app"};
  for (const char* end :
       {"", "/", "/.", "/..", "/app/..", "/..%2Foutside", "/%2e%2e/outside", "/app/../../outside",
        "/app%2Finner", "/app/inner", "/link", "/link/", "/link/precious", "/nothing", "x/app", "/mount"}) {
    if (isMounted || std::string_view(end) != "/mount") bad.push_back("file://" + cache + end);
  }
  const std::string before = tree.list();
  Items all{LKSResource::initLKSResourceItemWithName("without a URL")};
  for (const std::string& url : bad) {
    all.push_back(LKSResource::initLKSResourceItemWithName("x"));
    LKSResource(all.back()).setLks_URL(URL::parse(url).value());
    ask<LKSDeleteResourcesOperation>({all.back()});
    EXPECT_TRUE(error.starts_with("1 of 1 caches could not be emptied: ")) << url << " " << error;
    ASSERT_EQ(before, tree.list()) << url;
  }
  EXPECT_EQ(isMounted ? 0u : 1u, resources().count("cache/mount"));
  all.push_back(LKSResource::initLKSResourceItemWithFilePath(cache + "/fine").value());
  ask<LKSDeleteResourcesOperation>(all);
  EXPECT_TRUE(error.starts_with(std::to_string(bad.size() + 1) + " of ")) << error;
  EXPECT_FALSE(tree.has("cache/fine/x")) << "one that is refused stops nothing";
}

TEST_F(Caches, OffersOldThumbnailsAndDeletesExactlyThese) {
  tree.shell(
      "mkdir -p cache/thumbnails/normal cache/thumbnails/fail/program; cd cache/thumbnails;"
      "ln -s ../../outside large; touch normal/new.png normal/read.png normal/notes.txt fail/program/new.png;"
      "for f in normal/old.png fail/program/old.png ../../outside/old.png; do fallocate -l 6M $f; done;"
      "touch -d '40 days ago' */old.png */*/old.png normal/notes.txt;"
      "touch -m -d '40 days ago' normal/read.png");
  const Items tips = ask<LKSFetchRecommendationsOperation>();
  ASSERT_EQ(1u, tips.size());
  const LKSConfirmPanel panel(ask<LKSFetchPerformRecommendationConfirmationOperation>(tips).at(0));
  EXPECT_TRUE(panel.lks_confirmMessage()->starts_with("This frees 12.6 MB. "));
  // A forged date reaches no further than what is old.
  LKSTipMessage(tips[0]).setLks_reference("9000-01-01T00:00:00Z");
  const std::string before = tree.list();
  ask<LKSPerformRecommendationOperation>(tips);
  EXPECT_FALSE(tree.has("cache/thumbnails/normal/old.png") ||
               tree.has("cache/thumbnails/fail/program/old.png"));
  tree.shell("touch cache/thumbnails/normal/old.png cache/thumbnails/fail/program/old.png");
  EXPECT_EQ(before, tree.list()) << "nothing else went";
  expectNotice(LKSOpaqueExtensionRecommendationsDidChangeNotification);
  expectNotice(LKSOpaqueExtensionResourcesDidChangeNotification);
}

TEST_F(Caches, OffersToEmptyAVeryLargeCacheAndChecksAgainBeforeItDoes) {
  tree.shell("mkdir cache/huge cache/small; touch cache/small/x");
  if (tree.shell("fallocate -l 1G cache/huge/x || echo no") == "no\n") GTEST_SKIP() << "no room for 1 GiB";
  const Items tips = ask<LKSFetchRecommendationsOperation>();
  ASSERT_EQ(1u, tips.size());
  for (const char* forged : {"/cache/small", "/cache/../outside", "/outside"}) {
    LKSTipMessage tip(MessageItem{});
    tip.setLks_reference("file://" + tree.path() + forged);
    ask<LKSPerformRecommendationOperation>({tip});
    EXPECT_TRUE(error.ends_with("is no large cache any more.")) << forged << error;
  }
  ask<LKSPerformRecommendationOperation>(tips);
  EXPECT_EQ("", error);
  EXPECT_EQ("./cache ./cache/huge ./cache/small ./cache/small/x ./outside ./outside/precious ", tree.list());
}

}  // namespace
}  // namespace larkspan::tests
