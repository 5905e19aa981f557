#include "larkspan/host/LKSExtensionOperation.h"
#include "larkspan/items/LKSConfirmPanel.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/items/LKSSummaryResource.h"
#include "larkspan/items/LKSTipMessage.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "tests/platform/files/TestTree.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <map>

namespace larkspan::tests {
namespace {

using platform::URL;

/// The extension's own process over a home trash in a temporary folder, as a host meets it.
class Trash : public testing::Test {
 protected:
  Trash() {
    shell("mkdir -p data/Trash/files data/Trash/info outside && touch outside/precious");
    observer = platform::NotificationCenter::defaultCenter().addObserver(
        std::nullopt, handle.get(), [this](const platform::Notification& notification) {
          const std::lock_guard lock(mutex);
          heard.push_back(notification.name);
          changed.notify_all();
        });
  }
  ~Trash() override {
    handle->abandon();
    ::umount2((tree / "mount").c_str(), MNT_DETACH);
  }

  template <typename Operation>
  Items ask(Items input = {}) {
    const auto operation = LKSOperation::makeOperation<Operation>();
    operation->setExtension(handle);
    operation->setInputItems(std::move(input));
    operation->start();
    operation->waitUntilFinished();
    error = operation->error() ? operation->error()->localizedDescription() : "";
    return operation->returnedItems().value_or(Items());
  }
  /// By the paths where they lie below the tree; the summary by "".
  std::map<std::string, LKSResource> resources() {
    std::map<std::string, LKSResource> result;
    for (const LKSResource item : ask<LKSFetchResourcesOperation>()) {
      const auto url = item.lks_URL();
      if (!url || url->path().starts_with(tree.path()))
        result.emplace(url ? url->path().substr(tree.path().size() + 1) : "", item);
    }
    return result;
  }
  /// Forgets what was heard, does something and waits for the next notices of all three kinds.
  void awaitNotices(const std::string& after) {
    forgetNotices();
    shell(after);
    expectNotices(after);
  }
  void forgetNotices() {
    const std::lock_guard lock(mutex);
    heard.clear();
  }
  void expectNotices(const std::string& after) {
    for (const std::string_view name :
         {LKSOpaqueExtensionBytesUsedDidChangeNotification, LKSOpaqueExtensionResourcesDidChangeNotification,
          LKSOpaqueExtensionRecommendationsDidChangeNotification}) {
      std::unique_lock lock(mutex);
      EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(20),
                                   [&] { return std::count(heard.begin(), heard.end(), name) > 0; }))
          << name << " after " << after;
    }
  }
  std::string shell(const std::string& command) {
    // put TRASH NAME PATH [DATE] [WRITTEN]
    return platform::shell(
        "put() { printf '[Trash Info]\\nPath=%s\\nDeletionDate=%s\\nPath=/no\\n' \"$3\" "
        "\"${4:-2026-11-01T10:00:00}\" >\"$1/info/$2.trashinfo\"; "
        "touch -d \"${5:-now}\" \"$1/info/$2.trashinfo\"; }; "
        "cd " +
        tree.path() + " && set -e && " + command);
  }
  std::string list(const std::string& folder) {
    return shell("cd " + folder + " && find . -mindepth 1 | sort | tr '\\n' ' '");
  }

  platform::TestTree tree;
  const std::string data = tree / "data";
  const ScopedVariable home{"XDG_DATA_HOME", data.c_str()};
  const std::string mounts = tree / "mountinfo";
  const ScopedVariable volumes{"LARKSPAN_MOUNTINFO", mounts.c_str()};
  const ScopedVariable zone{"TZ", "UTC-2"};
  const std::shared_ptr<LKSOpaqueExtension> handle = LKSOpaqueExtension::initWithExtension(
      std::make_shared<platform::Extension>(std::get<platform::Manifest>(platform::readManifest(
          LARKSPAN_TEST_BIN "/../share/larkspan/extensions/corvane.larkspan.trash.extension"))));
  std::string error;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> heard;
  platform::NotificationCenter::Token observer;
};

TEST_F(Trash, ListsWhatWasDeletedAsItWas) {
  shell(
      "cd data/Trash; mkdir -p files/folder.2/deep; head -c 70000 /dev/zero >files/folder.2/deep/x;"
      "head -c 5000 /dev/zero >files/a%; ln -s ../../../outside files/link; touch files/orphan;"
      "put . folder.2 /home/me/My%20%2541%FFfolder 2026-11-20T12:30:00;"
      "put . a% relative/../../climbs nonsense; put . link /home/me/link; put . gone /home/me/gone;"
      "mkdir info/dir.trashinfo; touch files/dir; mkfifo info/pipe.trashinfo; touch files/pipe");
  auto found = resources();
  const auto& folder = found.at("data/Trash/files/folder.2");
  EXPECT_EQ("My %41\uFFFDfolder", folder.lks_name());
  EXPECT_EQ("/home/me/My %41\uFFFDfolder", folder.userInfo().get(kSecondaryTitleKey).string());
  EXPECT_EQ("2026-11-20T10:30:00Z", folder.lks_dateModified()->description());
  EXPECT_EQ(std::stoll(shell("stat -c %b data/Trash/files/folder.2/deep data/Trash/files/folder.2/deep/x | "
                             "paste -sd+ | bc")) *
                512,
            folder.lks_size());
  EXPECT_EQ("a%", found.at("data/Trash/files/a%").lks_name());
  EXPECT_EQ(platform::Value(), found.at("data/Trash/files/a%").userInfo().get(kSecondaryTitleKey));
  EXPECT_EQ(0, found.at("data/Trash/files/link").lks_size()) << "a link is not followed";
  EXPECT_EQ("orphan", found.at("data/Trash/files/orphan").lks_name());
  EXPECT_TRUE(found.contains("data/Trash/files/dir") && found.contains("data/Trash/files/pipe"));
  EXPECT_EQ(7u, found.size()) << "six entries and the summary";
  EXPECT_EQ("6 items take ", LKSSummaryResource(found.at("")).lks_summaryMessage()->substr(0, 13));
}

TEST_F(Trash, DeletesWhatWasListedAndKeepsTheInfoOfWhatCouldNotGo) {
  shell(
      "cd data/Trash; mkdir -p files/folder/deep files/stays/part; touch files/folder/deep/x files/file "
      "files/other "
      "files/stays/part/x files/stays/y; ln -s ../../../outside files/folder/way;"
      "for f in folder file other stays; do put . $f /home/$f; done");
  auto found = resources();
  const bool isMounted =
      ::mount("none", (tree / "data/Trash/files/stays/part").c_str(), "tmpfs", 0, "size=1m") == 0;
  shell(
      "rm data/Trash/files/other && touch data/Trash/files/another && mv data/Trash/files/another "
      "data/Trash/files/other");
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
  EXPECT_EQ(
      "./files ./files/other ./files/stays ./files/stays/part ./files/stays/part/x ./info "
      "./info/other.trashinfo "
      "./info/stays.trashinfo ",
      list("data/Trash"));
  EXPECT_EQ("./precious ", list("outside"));
}

TEST_F(Trash, EmptiesWhatTheSummarySpokeOfAndTipsOnWhatIsOld) {
  const std::string future = "date -d '40 days ago' +%Y-%m-%dT%H:%M:%S";
  shell("cd data/Trash; touch files/old files/new files/orphan; put . old /home/me/ancient $(" + future +
        ") '40 days ago';"
        "put . new /home/me/new $(date +%Y-%m-%dT%H:%M:%S); put . stray /x $(date +%Y-%m-%dT%H:%M:%S) '2 "
        "hours ago';"
        "put . justnow /x");
  auto found = resources();
  EXPECT_EQ("old", found.at("data/Trash/files/old").lks_category());
  EXPECT_EQ("recent", found.at("data/Trash/files/new").lks_category());
  Items tips = ask<LKSFetchRecommendationsOperation>();
  ASSERT_EQ(1u, tips.size());
  EXPECT_EQ("One item, 0 bytes", LKSTipMessage(tips[0]).lks_secondaryTitle());
  LKSTipMessage(tips[0]).setLks_reference("9000-01-01T00:00:00Z");  // Reaches no further than what is old.
  EXPECT_EQ("Delete “ancient” for good?",
            LKSConfirmPanel(ask<LKSFetchPerformRecommendationConfirmationOperation>(tips).at(0))
                .lks_confirmTitle());
  ask<LKSPerformRecommendationOperation>(tips);
  EXPECT_EQ("./files ./files/new ./files/orphan ./info ./info/justnow.trashinfo ./info/new.trashinfo ",
            list("data/Trash"));
  EXPECT_EQ(0u, ask<LKSFetchRecommendationsOperation>().size());

  const MessageItem summary = resources().at("");
  shell("cd data/Trash; touch files/later; put . later /home/me/later '' 'next minute'");
  EXPECT_EQ("The 2 items in it are deleted for good. This frees 0 bytes and cannot be undone.",
            LKSConfirmPanel(ask<LKSFetchPerformSummaryActionConfirmationOperation>({summary}).at(0))
                .lks_confirmMessage());
  ask<LKSPerformSummaryActionOperation>({summary});
  EXPECT_EQ("", error);
  EXPECT_EQ("./files ./files/later ./info ./info/justnow.trashinfo ./info/later.trashinfo ",
            list("data/Trash"));
  ask<LKSPerformSummaryActionOperation>();
  EXPECT_EQ("It does not say what was listed", error);
}

TEST_F(Trash, TellsTheHostWhatOthersDoAndKnowsTheTrashOfVolumes) {
  shell("rm -r data/Trash");
  EXPECT_TRUE(resources().empty());
  awaitNotices(
      "mkdir -p data/Trash/files data/Trash/info; touch data/Trash/files/a; put data/Trash a /home/a");
  EXPECT_EQ(1u, resources().count("data/Trash/files/a"));
  awaitNotices("rm -r data/Trash/files/a data/Trash/info/a.trashinfo");

  const std::string mount = tree / "mount";
  tree.folder("mount");
  tree.file("mountinfo", "36 35 98:0 / " + mount + " rw shared:1 master:1 - tmpfs none rw\n" +
                             "37 35 98:0 / /nowhere rw - nfs server:/ rw\n");
  forgetNotices();
  if (::mount("none", mount.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "needs the privilege to mount";
  expectNotices("a mount");
  const std::string user = std::to_string(getuid());
  const std::string own = "mount/.Trash-" + user, shared = "mount/.Trash/" + user;
  awaitNotices("mkdir -p " + own + "/files " + own + "/info " + shared + "/files " + shared +
               "/info; chmod +t mount/.Trash;"
               "touch " +
               own + "/files/b " + shared + "/files/c; put " + own + " b docs/b; put " + shared + " c c");
  auto found = resources();
  EXPECT_EQ(mount + "/docs/b", found.at(own + "/files/b").userInfo().get(kSecondaryTitleKey).string());
  EXPECT_EQ(1u, found.count(shared + "/files/c"));
  const LKSResource b = found.at(own + "/files/b");
  // Not sticky; a link; another's.
  shell("chmod -t mount/.Trash; mv " + own + " mount/aside; ln -s aside " + own);
  ask<LKSDeleteResourcesOperation>({b});
  EXPECT_TRUE(error.ends_with("/files/b is not in the trash")) << error;
  EXPECT_EQ(1u,
            shell("rm " + own + "; mv mount/aside " + own + "; chown 12345 " + own + "; echo -n x").size());
  ask<LKSDeleteResourcesOperation>({b});
  EXPECT_TRUE(error.ends_with("/files/b is not in the trash")) << error;
  EXPECT_TRUE(resources().empty());
  shell("chown " + user + " " + own);
  ask<LKSDeleteResourcesOperation>({b});
  EXPECT_EQ("", error);
  EXPECT_EQ("./files ./info ", list(own));
  awaitNotices("umount -l mount");
}

}  // namespace
}  // namespace larkspan::tests
