#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/files/Installed.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "larkspan/provider/LKSExtension.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using platform::Dictionary;
using platform::Error;
using platform::Value;

struct Answer {
  std::optional<Items> items;
  std::optional<Error> error;
};

Answer ask(const std::shared_ptr<LKSExtension>& extension, const Items& items) {
  Collector<Answer> answers;
  extension->processInputItems(items, [&](const auto& reply, const auto& error) {
    answers.push({reply, error});
  });
  const auto all = answers.waitFor(1);
  return all.empty() ? Answer() : all.front();
}

Items command(std::string_view name, const Items& arguments = {}) {
  Items items{*LKSCommand::initLKSCommandItem(name)};
  items.insert(items.end(), arguments.begin(), arguments.end());
  return items;
}

Items tips(std::initializer_list<const char*> titles) {
  Items items;
  for (const char* title : titles) items.push_back(*LKSTipMessage::initLKSTipWithTitle(title));
  return items;
}

TEST(ExtensionRequests, ThatDoNotBeginWithACommandAreMalformed) {
  const auto extension = std::make_shared<LKSExtension>();
  MessageItem noCommand;
  noCommand.setUserInfo({{kItemKindKey, "COMMAND"}});
  MessageItem emptyCommand;
  emptyCommand.setUserInfo({{kItemKindKey, "COMMAND"}, {kCommandKey, ""}});
  MessageItem plainKey;
  plainKey.setUserInfo({{kItemKindKey, "COMMAND"}, {"COMMAND", "INFO?"}});
  MessageItem wrongTypes;
  wrongTypes.setUserInfo({{kItemKindKey, 1}, {kCommandKey, true}});
  for (const Items& items : {Items(), Items{LKSResource::initLKSResourceItemWithName("A")}, Items{noCommand},
                             Items{emptyCommand}, Items{plainKey}, Items{wrongTypes}}) {
    CapturedLog log;
    bool answered = false;
    extension->processInputItems(items, [&](const auto& reply, const auto& error) {
      answered = true;
      EXPECT_FALSE(reply);
      EXPECT_EQ(error, Error("corvane.larkspan", INT64_MAX));
    });
    EXPECT_TRUE(answered) << "on the calling thread";
    EXPECT_EQ(log.console(),
              std::vector<std::string>{"beginRequest: malformed request - must begin with a command item"});
  }
}

TEST(ExtensionDefaults, AnswerEveryCommandAndSayWhatIsNotImplemented) {
  const auto extension = std::make_shared<LKSExtension>();
  const Items resource{LKSResource::initLKSResourceItemWithName("A")};
  struct Case {
    std::string_view name;
    Items arguments;
    std::size_t answers;
    bool fails;
    std::vector<std::string> console;
  };
  const Case cases[] = {
      {"INFO?", {}, 1, false, {}},
      {"RESOURCES?", {}, 0, false, {}},
      {"RESOURCE_DELETE",
       resource,
       0,
       true,
       {"Error: Extension has not implemented deleteResourceItems method"}},
      {"RESOURCE_SHOW", resource, 0, false, {}},
      {"TIPS?", {}, 0, false, {}},
      {"TIP_PERFORM", tips({"x"}), 0, true, {"Error: Extension has not implemented performTipAction method"}},
      {"HDR_PERFORM", {}, 0, false, {}},
      {"SUMMARY_PERFORM", {}, 0, false, {"Error: Extension has not implemented performSummaryAction method"}},
      {"DELETE_CONFIRM?", resource, 1, false, {}},
      {"DELETE_CONFIRM?", {}, 0, false, {}},
      {"TIP_CONFIRM?", tips({"x"}), 1, false, {}},
      {"TIP_CONFIRM?", {}, 0, false, {}},
      {"SUMMARY_CONFIRM?", {LKSSummaryResource::initLKSSummaryResource()}, 1, false, {}},
      {"SUMMARY_CONFIRM?", {}, 0, false, {}},
      {"info?", {}, 0, false, {}},
      {"UNKNOWN", resource, 0, false, {}},
  };
  for (const Case& c : cases) {
    CapturedLog log;
    Items request = command(c.name, c.arguments);
    LKSCommand(request.front()).setLks_error(Error("stale", 1));
    const Answer answer = ask(extension, request);
    ASSERT_TRUE(answer.items) << c.name;
    EXPECT_FALSE(answer.error);
    EXPECT_EQ(answer.items->size(), 1 + c.answers) << c.name;
    EXPECT_EQ(answer.items->front(), request.front())
        << "the reply begins with the request's own command item";
    const auto error = LKSCommand(answer.items->front()).lks_error();
    EXPECT_EQ(error, c.fails ? std::optional(Error("corvane.larkspan", INT64_MAX)) : std::nullopt) << c.name;
    EXPECT_EQ(log.console(), c.console) << c.name;
  }
  EXPECT_EQ(ask(extension, command("INFO?")).items->at(1).userInfo(),
            (Dictionary{{"_HEADER_BUTTON_", ""},
                        {"_HEADER_MESSAGE_", ""},
                        {"_HIDDEN_", false},
                        {"_APPPATHS_", platform::Array()},
                        {"_SIZE_", 0},
                        {"_HIDE_PATHS_", true}}));
}

TEST(ExtensionInformation, CarriesEveryAnswerUnderItsKeyAndFlagsOnlyWhereTheySaySomething) {
  class Everything : public LKSExtension {
    bool isHidden() override { return true; }
    std::vector<std::string> categories() override { return {"b", "a"}; }
    std::string localizedStringForCategory(const std::string& id) override { return "Name of " + id; }
    std::optional<std::string> localizedHeaderMessage() override { return std::nullopt; }
    std::optional<std::string> localizedRevealButtonTitle() override { return "Show"; }
    std::vector<std::string> managedPaths() override { return {"/x"}; }
    std::optional<platform::URL> representedApplication() override {
      return platform::URL::file("/opt/Draw.app");
    }
    bool showItemPaths() override { return true; }
    bool showRevealButton() override { return false; }
    bool showsSummaryPanel() override { return true; }
    int64_t totalSpaceUsed() override { return LKSExtensionTotalSpaceUsedUnknown; }
  };
  struct Facts : platform::FileFacts {
    std::optional<Error> read(const platform::URL&, platform::ResourceValues& values) const override {
      values.localizedName = name;
      return std::nullopt;
    }
    std::string name = "Draw.app";
  } facts;
  const platform::Installed<platform::FileFacts> installed(facts);
  const auto extension = std::make_shared<Everything>();
  const Dictionary information = ask(extension, command("INFO?")).items->at(1).userInfo();
  EXPECT_EQ(information, (Dictionary{{"_CATEGORIES_", platform::Array{"b", "a"}},
                                     {"_CATEGORY_NAMES_", Dictionary{{"b", "Name of b"}, {"a", "Name of a"}}},
                                     {"_HEADER_BUTTON_", "Open Draw"},
                                     {"_HIDDEN_", true},
                                     {"_APPURL_", platform::URL::file("/opt/Draw.app")},
                                     {"_APPPATHS_", platform::Array{"/x"}},
                                     {"_ISSUMMARY_", true},
                                     {"_SIZE_", LKSExtensionTotalSpaceUsedUnknown},
                                     {"_HIDE_REVEAL_", true},
                                     {"_REVEAL_TITLE_", "Show"}}));
  facts.name = ".app";
  EXPECT_EQ(extension->localizedHeaderButtonTitle(), "Open");
}

TEST(ExtensionCommands, TryEveryTipAndKeepTheLastErrorAndRunOneAtATime) {
  class Tips : public LKSExtension {
   public:
    std::optional<Error> performTipAction(const LKSTipMessage& tip) override {
      EXPECT_EQ(running.exchange(true), false);
      tried.push_back(*tip.lks_name());
      running = false;
      if (tip.lks_name() == "good") return std::nullopt;
      return Error("test", static_cast<int64_t>(tried.size()));
    }
    std::vector<std::string> tried;
    std::atomic<bool> running{false};
  };
  const auto extension = std::make_shared<Tips>();
  const Answer answer = ask(extension, command("TIP_PERFORM", tips({"bad", "good", "bad"})));
  EXPECT_EQ(extension->tried, (std::vector<std::string>{"bad", "good", "bad"}));
  EXPECT_EQ(LKSCommand(answer.items->front()).lks_error(), Error("test", 3));

  Collector<int> done;
  for (int i = 0; i < 50; ++i) {
    extension->processInputItems(command("TIP_PERFORM", tips({"good"})),
                                 [&, i](const auto&, const auto&) { done.push(i); });
  }
  const auto order = done.waitFor(50);
  EXPECT_TRUE(order.size() == 50 && std::is_sorted(order.begin(), order.end())) << "in the order of arrival";
}

TEST(DeleteConfirmation, SaysHowManyAndHowMuch) {
  const auto item = [](const char* name, int64_t size) {
    LKSResource resource = LKSResource::initLKSResourceItemWithName(name);
    resource.setLks_size(size);
    return resource;
  };
  constexpr int64_t kUnknown = LKSExtensionTotalSpaceUsedUnknown;
  struct Case {
    std::vector<LKSResource> items;
    const char *title, *message;
  };
  const Case cases[] = {
      {{item("A", 1'500'000)}, "Delete “A”?", "This frees 1.5 MB. The item cannot be restored."},
      {{item("A", kUnknown)}, "Delete “A”?", "The item cannot be restored."},
      {{item("A", 0)}, "Delete “A”?", "The item cannot be restored."},
      {{item("A", 10), item("B", kUnknown)},
       "Delete 2 items?",
       "Deleting these 2 items frees 10 bytes. They cannot be restored."},
      {{item("A", kUnknown), item("B", kUnknown)}, "Delete 2 items?", "These 2 items cannot be restored."},
      {{item("A", INT64_MAX), item("B", 1), item("C", 1)},
       "Delete 3 items?",
       "Deleting these 3 items frees 9.22 EB. They cannot be restored."},
  };
  const auto extension = std::make_shared<LKSExtension>();
  for (const Case& c : cases) {
    const auto panel = extension->confirmationTextForDelete(c.items);
    ASSERT_TRUE(panel);
    EXPECT_EQ(panel->lks_confirmTitle(), c.title);
    EXPECT_EQ(panel->lks_confirmMessage(), c.message);
    EXPECT_EQ(panel->lks_confirmOKButtonTitle(), "Delete");
    EXPECT_EQ(panel->lks_confirmCancelButtonTitle(), "Cancel");
  }
}

}  // namespace
}  // namespace larkspan::tests
