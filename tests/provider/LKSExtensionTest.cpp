#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/files/Installed.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "larkspan/provider/LKSExtension.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using namespace platform;

/// The reply; an error fails the test.
Items ask(const std::shared_ptr<LKSExtension>& extension, const Items& items) {
  Collector<Items> answers;
  extension->processInputItems(items, [&](const auto& reply, const auto& error) {
    EXPECT_FALSE(error);
    answers.push(reply.value());
  });
  return answers.waitFor(1).at(0);
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
  MessageItem empty, wrongTypes;
  empty.setUserInfo({{kItemKindKey, "COMMAND"}, {kCommandKey, ""}});
  wrongTypes.setUserInfo({{kItemKindKey, 1}, {kCommandKey, true}});
  for (const Items& items : {Items(), Items{empty}, Items{wrongTypes}}) {
    CapturedLog log;
    std::vector<std::optional<Error>> answers;  // On the calling thread.
    std::make_shared<LKSExtension>()->processInputItems(
        items, [&](const auto&, const auto& error) { answers.push_back(error); });
    EXPECT_EQ(answers, std::vector{std::optional(Error("corvane.larkspan", INT64_MAX))});
    EXPECT_EQ(log.console(),
              std::vector<std::string>{"beginRequest: malformed request - must begin with a command item"});
  }
}

TEST(ExtensionDefaults, AnswerEveryCommandAndSayWhatIsNotImplemented) {
  const auto extension = std::make_shared<LKSExtension>();
  const Items resource{LKSResource::initLKSResourceItemWithName("A")};
  // The command, its arguments, the title of what is answered if anything is, whether it fails, and what is missing.
  const std::tuple<const char*, Items, std::optional<std::string>, bool, std::string> cases[] = {
      {"INFO?", {}, "", false, ""},
      {"RESOURCES?", {}, {}, false, ""},
      {"RESOURCE_DELETE", resource, {}, true, "deleteResourceItems"},
      {"RESOURCE_SHOW", resource, {}, false, ""},
      {"TIPS?", {}, {}, false, ""},
      {"TIP_PERFORM", tips({"x"}), {}, true, "performTipAction"},
      {"HDR_PERFORM", {}, {}, false, ""},
      {"SUMMARY_PERFORM", {}, {}, false, "performSummaryAction"},
      {"DELETE_CONFIRM?", resource, "Delete “A”?", false, ""},
      {"DELETE_CONFIRM?", {}, {}, false, ""},
      {"TIP_CONFIRM?", tips({"x"}), "Apply This Recommendation?", false, ""},
      {"TIP_CONFIRM?", {}, {}, false, ""},
      {"SUMMARY_CONFIRM?", {LKSSummaryResource::initLKSSummaryResource()}, "Perform This Action?", false, ""},
      {"SUMMARY_CONFIRM?", {}, {}, false, ""},
      {"info?", {}, {}, false, ""},
  };
  for (const auto& [name, arguments, title, fails, missing] : cases) {
    SCOPED_TRACE(name);
    CapturedLog log;
    Items request = command(name, arguments);
    LKSCommand(request.front()).setLks_error(Error("stale", 1));
    const Items answer = ask(extension, request);
    EXPECT_EQ(answer.size(), title ? 2u : 1u);
    EXPECT_EQ(LKSConfirmPanel(answer.back()).lks_confirmTitle().value_or(""), title.value_or(""));
    EXPECT_EQ(answer.front(), request.front()) << "the reply begins with the request's own command item";
    EXPECT_EQ(LKSCommand(answer.front()).lks_error(),
              fails ? std::optional(Error("corvane.larkspan", INT64_MAX)) : std::nullopt);
    std::vector<std::string> said;
    if (!missing.empty()) said = {"Error: Extension has not implemented " + missing + " method"};
    EXPECT_EQ(log.console(), said);
  }
  EXPECT_EQ(ask(extension, command("INFO?")).at(1).userInfo(), (Dictionary{{"_HEADER_BUTTON_", ""},
                                                                           {"_HEADER_MESSAGE_", ""},
                                                                           {"_HIDDEN_", false},
                                                                           {"_APPPATHS_", Array()},
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
    std::optional<URL> representedApplication() override { return URL::file("/opt/Draw.app"); }
    bool showItemPaths() override { return true; }
    bool showRevealButton() override { return false; }
    bool showsSummaryPanel() override { return true; }
    int64_t totalSpaceUsed() override { return LKSExtensionTotalSpaceUsedUnknown; }
  };
  struct Facts : FileFacts {
    std::optional<Error> read(const URL&, ResourceValues& values) const override {
      values.localizedName = "Draw.app";
      return std::nullopt;
    }
  } facts;
  const Installed<FileFacts> installed(facts);
  EXPECT_EQ(ask(std::make_shared<Everything>(), command("INFO?")).at(1).userInfo(),
            (Dictionary{{"_CATEGORIES_", Array{"b", "a"}},
                        {"_CATEGORY_NAMES_", Dictionary{{"b", "Name of b"}, {"a", "Name of a"}}},
                        {"_HEADER_BUTTON_", "Open Draw"},
                        {"_HIDDEN_", true},
                        {"_APPURL_", URL::file("/opt/Draw.app")},
                        {"_APPPATHS_", Array{"/x"}},
                        {"_ISSUMMARY_", true},
                        {"_SIZE_", LKSExtensionTotalSpaceUsedUnknown},
                        {"_HIDE_REVEAL_", true},
                        {"_REVEAL_TITLE_", "Show"}}));
}

TEST(ExtensionCommands, TryEveryTipAndKeepTheLastErrorAndRunOneAtATime) {
  struct Tips : LKSExtension {
    std::optional<Error> performTipAction(const LKSTipMessage& tip) override {
      tried += *tip.lks_name() + " ";  // Unguarded on purpose.
      if (tip.lks_name() == "good") return std::nullopt;
      return Error("test", static_cast<int64_t>(tried.size()));
    }
    std::string tried;
  };
  const auto extension = std::make_shared<Tips>();
  const Items answer = ask(extension, command("TIP_PERFORM", tips({"bad", "good", "bad"})));
  EXPECT_EQ(extension->tried, "bad good bad ");
  EXPECT_EQ(LKSCommand(answer.front()).lks_error(), Error("test", 13));

  Collector<int> done;
  for (int i = 0; i < 50; ++i) {
    extension->processInputItems(command("TIP_PERFORM", tips({"good"})), [&, i](auto&&...) { done.push(i); });
  }
  const auto order = done.waitFor(50);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << "in the order of arrival";
  EXPECT_EQ(extension->tried.size(), 13u + 50 * 5);
}

TEST(DeleteConfirmation, SaysHowManyAndHowMuch) {
  constexpr int64_t kUnknown = LKSExtensionTotalSpaceUsedUnknown;
  const std::tuple<std::vector<int64_t>, const char*, const char*> cases[] = {
      {{1'500'000}, "Delete “A”?", "This frees 1.5 MB. The item cannot be restored."},
      {{kUnknown}, "Delete “A”?", "The item cannot be restored."},
      {{10, kUnknown}, "Delete 2 items?", "Deleting these 2 items frees 10 bytes. They cannot be restored."},
      {{kUnknown, kUnknown}, "Delete 2 items?", "These 2 items cannot be restored."},
      {{INT64_MAX, 1}, "Delete 2 items?", "Deleting these 2 items frees 9.22 EB. They cannot be restored."},
  };
  for (const auto& [sizes, title, message] : cases) {
    std::vector<LKSResource> items;
    for (const int64_t size : sizes) {
      items.push_back(LKSResource::initLKSResourceItemWithName("A"));
      items.back().setLks_size(size);
    }
    const auto panel = std::make_shared<LKSExtension>()->confirmationTextForDelete(items);
    EXPECT_EQ(panel.value().lks_confirmTitle(), title);
    EXPECT_EQ(panel.value().lks_confirmMessage(), message);
  }
}

}  // namespace
}  // namespace larkspan::tests
