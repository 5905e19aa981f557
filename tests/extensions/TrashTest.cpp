#include "larkspan/items/LKSSummaryResource.h"
#include "tests/extensions/ExtensionTest.h"

namespace larkspan::tests {
namespace {

using platform::URL;

/// With a home trash in the temporary folder, and no volumes but those of "mountinfo".
class Trash : public ExtensionTest {
 protected:
  Trash() : ExtensionTest("trash") {
    shell("mkdir -p data/Trash/files data/Trash/info outside && touch outside/precious");
  }

  void expectNotices() {
    for (const std::string_view name :
         {LKSOpaqueExtensionBytesUsedDidChangeNotification, LKSOpaqueExtensionResourcesDidChangeNotification,
          LKSOpaqueExtensionRecommendationsDidChangeNotification})
      expectNotice(name);
  }
  std::string shell(const std::string& command) {
    // put TRASH NAME PATH [DATE] [WRITTEN]
    return tree.shell(
        "put() { printf '[Trash Info]\\nPath=%s\\nDeletionDate=%s\\nPath=/no\\n' \"$3\" "
        "\"${4:-2026-11-01T10:00:00}\" >\"$1/info/$2.trashinfo\"; "
        "touch -d \"${5:-now}\" \"$1/info/$2.trashinfo\"; }; own=mount/.Trash-$(id -u) "
        "shared=mount/.Trash/$(id -u); " +
        command);
  }

  const std::string data = tree / "data", mounts = tree / "mountinfo";
  const ScopedVariable home{"XDG_DATA_HOME", data.c_str()}, volumes{"LARKSPAN_MOUNTINFO", mounts.c_str()},
      zone{"TZ", "UTC-2"};
};

TEST_F(Trash, ListsWhatWasDeletedAsItWas) {
  shell(
      "cd data/Trash; mkdir -p files/folder.2/deep; head -c 70000 /dev/zero >files/folder.2/deep/x;"
      "head -c 5000 /dev/zero >files/a%; ln -s ../../../outside files/link; touch files/orphan;"
      "put . folder.2 /home/me/My%20%2541%FFfolder 2026-11-20T12:30:00;"
      "put . a% relative/../../climbs nonsense; put . link docs/link; put . gone /home/me/gone;"
      "mkdir info/dir.trashinfo; touch files/dir; mkfifo info/pipe.trashinfo; touch files/pipe");
  auto found = resources();
  const auto& folder = found.at("data/Trash/files/folder.2");
  EXPECT_EQ("My %41\uFFFDfolder", folder.lks_name());
  EXPECT_EQ("/home/me/My %41\uFFFDfolder", folder.userInfo().get(kSecondaryTitleKey).string());
  EXPECT_EQ("2026-11-20T10:30:00Z", folder.lks_dateModified()->description());
  const std::string blocks = shell("cd data/Trash/files/folder.2; stat -c %b deep deep/x | paste -sd+ | bc");
  EXPECT_EQ(std::stoll(blocks) * 512, folder.lks_size());
  EXPECT_EQ("a%", found.at("data/Trash/files/a%").lks_name());
  EXPECT_EQ(platform::Value(), found.at("data/Trash/files/a%").userInfo().get(kSecondaryTitleKey));
  EXPECT_EQ(0, found.at("data/Trash/files/link").lks_size()) << "a link is not followed";
  EXPECT_EQ(data + "/docs/link",
            found.at("data/Trash/files/link").userInfo().get(kSecondaryTitleKey).string());
  EXPECT_EQ("orphan", found.at("data/Trash/files/orphan").lks_name());
  EXPECT_TRUE(found.contains("data/Trash/files/dir") && found.contains("data/Trash/files/pipe"));
  EXPECT_EQ(7u, found.size()) << "six entries and the summary";
  EXPECT_EQ("Empty Trash", LKSSummaryResource(found.at("")).lks_summaryButton());
  EXPECT_EQ("6 items take ", LKSSummaryResource(found.at("")).lks_summaryMessage()->substr(0, 13));
  for (shell("mkdir data/Trash/files/gone"); resources().size() == 7 && !HasFailure(); heard.clear())
    expectNotice(LKSOpaqueExtensionResourcesDidChangeNotification);
}

TEST_F(Trash, DeletesWhatWasListedAndKeepsTheInfoOfWhatCouldNotGo) {
  shell(
      "cd data/Trash/files; mkdir -p folder/deep stays/part; touch folder/deep/x file other stays/part/x "
      "stays/y;"
      "cd ..; ln -s ../../../outside files/folder/way;"
      "for f in folder file other stays; do put . $f /home/$f; done");
  auto found = resources();
  const bool isMounted = tree.mountVolume("data/Trash/files/stays/part");
  shell("cd data/Trash/files; rm other; touch another; mv another other");
  const LKSConfirmPanel panel(
      ask<LKSFetchDeleteResourcesConfirmationOperation>({found.at("data/Trash/files/folder")}).at(0));
  EXPECT_EQ("Delete “folder” for good?", panel.lks_confirmTitle());
  for (const char* forged :
       {"/data/Trash/files/../../../outside", "/data/Trash/files/folder/deep", "/outside/precious",
        "/data/Trash/info/file.trashinfo", "/data/Trash/files/", "/data/Trash/files/%2E%2E"}) {
    LKSResource item = LKSResource::initLKSResourceItemWithName("x");
    item.setLks_URL(URL::parse("file://" + tree.path() + forged));
    ask<LKSDeleteResourcesOperation>({item});
    EXPECT_TRUE(error.ends_with(" is not in the trash")) << forged << " " << error;
  }
  Items all;
  for (const char* name : {"folder", "file", "other", "stays"})
    all.push_back(found.at("data/Trash/files/" + std::string(name)));
  ask<LKSDeleteResourcesOperation>(all);
  if (!isMounted) GTEST_SKIP() << "needs the privilege to mount";
  EXPECT_EQ("2 of 4 items could not be deleted: “other” is not what was listed", error);
  ::umount2((tree / "data/Trash/files/stays/part").c_str(), MNT_DETACH);
  EXPECT_EQ("./other ./stays ./stays/part ./stays/part/x ", tree.list("data/Trash/files"));
  EXPECT_EQ("./other.trashinfo ./stays.trashinfo ", tree.list("data/Trash/info"));
  EXPECT_EQ("./precious ", tree.list("outside"));
}

TEST_F(Trash, EmptiesWhatTheSummarySpokeOfAndTipsOnWhatIsOld) {
  shell(
      "cd data/Trash; touch files/old files/new files/orphan; now=$(date +%Y-%m-%dT%H:%M:%S);"
      "put . old /home/me/ancient $(date -d '31 days ago' +%Y-%m-%dT%H:%M:%S);"
      "put . new /home/me/new $(date -d '29 days ago' +%Y-%m-%dT%H:%M:%S) '31 days ago'; put . stray /x $now "
      "'2 hours ago'; put . justnow /x; touch files/ahead; put . ahead /home/me/ahead '' tomorrow");
  auto found = resources();
  EXPECT_EQ("old", found.at("data/Trash/files/old").lks_category());
  EXPECT_EQ("recent", found.at("data/Trash/files/new").lks_category());
  Items tips = ask<LKSFetchRecommendationsOperation>();
  ASSERT_EQ(1u, tips.size());
  EXPECT_EQ("One item, 0 bytes", LKSTipMessage(tips[0]).lks_secondaryTitle());
  EXPECT_EQ("Delete “ancient” for good?",
            LKSConfirmPanel(ask<LKSFetchPerformRecommendationConfirmationOperation>(tips).at(0))
                .lks_confirmTitle());
  ask<LKSPerformRecommendationOperation>(tips);
  EXPECT_EQ("./ahead ./new ./orphan ", tree.list("data/Trash/files"));
  EXPECT_EQ("./ahead.trashinfo ./justnow.trashinfo ./new.trashinfo ", tree.list("data/Trash/info"));
  EXPECT_EQ(0u, ask<LKSFetchRecommendationsOperation>().size());

  const MessageItem summary = resources().at("");
  shell("cd data/Trash; touch files/later; put . later /home/me/later '' yesterday");
  for (heard.clear(); !resources().contains("data/Trash/files/later") && !HasFailure(); heard.clear())
    expectNotice(LKSOpaqueExtensionResourcesDidChangeNotification);
  EXPECT_EQ("The 3 items in it are deleted for good. This frees 0 bytes and cannot be undone.",
            LKSConfirmPanel(ask<LKSFetchPerformSummaryActionConfirmationOperation>({summary}).at(0))
                .lks_confirmMessage());
  ask<LKSPerformSummaryActionOperation>({summary});
  EXPECT_EQ("", error);
  EXPECT_EQ("./files ./files/later ./info ./info/justnow.trashinfo ./info/later.trashinfo ",
            tree.list("data/Trash"));
  ask<LKSPerformSummaryActionOperation>();
  EXPECT_EQ("It does not say what was listed", error);
}

TEST_F(Trash, TellsTheHostWhatOthersDoAndKnowsTheTrashOfVolumes) {
  shell("mkdir info; touch data/Trash/files/a b; put . a /home/a; put . b /home/b");
  EXPECT_EQ(2u, resources().size());
  heard.clear();
  for (const auto& [change, count] : {std::pair("mv info/* data/Trash/info", 2u),
                                      {"mv b data/Trash/files", 3u},
                                      {"rm -r data/Trash", 0u}}) {
    shell(change);
    do {
      expectNotices();
      heard.clear();
    } while (resources().size() != count && !HasFailure());
  }

  const std::string mount = tree / "mount";
  tree.folder("mount");
  tree.file("mountinfo", "36 35 98:0 / " + mount + " rw shared:1 master:1 - tmpfs none rw\n" +
                             "37 35 98:0 / /nowhere rw - nfs server:/ rw\n");
  heard.clear();
  if (!tree.mountVolume()) GTEST_SKIP() << "needs the privilege to mount";
  expectNotices();
  const std::string user = std::to_string(getuid());
  const std::string own = "mount/.Trash-" + user, shared = "mount/.Trash/" + user;
  shell(
      "mkdir -p $own/files $own/info $shared/files $shared/info; chmod +t mount/.Trash;"
      "touch $own/files/b $shared/files/c; put $own b docs/b; put $shared c c");
  auto found = resources();
  for (; !found.contains(own + "/files/b") && !HasFailure(); found = resources()) {
    expectNotice(LKSOpaqueExtensionRecommendationsDidChangeNotification);
    heard.clear();
  }
  EXPECT_EQ(mount + "/docs/b", found.at(own + "/files/b").userInfo().get(kSecondaryTitleKey).string());
  EXPECT_EQ(1u, found.count(shared + "/files/c"));
  const LKSResource b = found.at(own + "/files/b"), c = found.at(shared + "/files/c");
  // A link and not sticky; another's; another's and beneath a link.
  for (const char* change :
       {"mv $own mount/aside; ln -s aside $own; chmod -t mount/.Trash",
        "rm $own; mv mount/aside $own; chmod +t mount/.Trash; chown 12345 $own $shared",
        "chown $(id -u) $shared; mv mount/.Trash mount/sticky; ln -s sticky mount/.Trash"}) {
    shell(change);
    ask<LKSDeleteResourcesOperation>({b, c});
    EXPECT_TRUE(error.starts_with("2 of 2 items could not be deleted: /")) << change << " " << error;
  }
  EXPECT_TRUE(resources().empty());
  shell("chown $(id -u) $own");
  ask<LKSDeleteResourcesOperation>({b});
  EXPECT_EQ("", error);
  EXPECT_EQ("./files ./info ", tree.list(own));
  heard.clear();
  shell("umount -l mount");
  expectNotices();
}

}  // namespace
}  // namespace larkspan::tests
