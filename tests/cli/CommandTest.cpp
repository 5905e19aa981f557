#include "tests/cli/Program.h"

#include <gtest/gtest.h>

#include <chrono>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace larkspan::tests {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;
using Words = std::vector<std::string>;

/// JSON without its layout.
std::string flat(std::string json) {
  std::erase_if(json, [](char c) { return c == ' ' || c == '\n'; });
  return json;
}

TEST(Command, ListsTheExtensionsBesideItAndFindsOneByItsEnding) {
  Program program;
  EXPECT_EQ(program.run({"extensions", "--json"}).output, "[]\n");
  for (const Words& words : {Words(), {"extensions"}, {"info", "x"}}) {
    const auto none = program.run(words);
    EXPECT_EQ(none.code(), words.size() == 2 ? 1 : 0);
    const std::string folder = program.tree().path("share/larkspan/extensions\n");
    EXPECT_TRUE((none.output + none.error).ends_with(folder)) << none.output << none.error;
  }
  program.add("b.caches", "kinds");
  program.add("a.caches", "kinds");
  program.add("caches", "kinds");
  const auto entry = [&](const std::string& identifier) {
    return R"({"identifier":")" + identifier + R"(","name":"Thekinds","manifest":")" +
           program.tree().path("share/larkspan/extensions/") + identifier +
           R"(.extension","executable":")" LARKSPAN_TEST_BIN R"(/fixtures/fixture_extension"})";
  };
  EXPECT_EQ(flat(program.run({"extensions", "--json"}).output),
            "[" + entry("a.caches") + "," + entry("b.caches") + "," + entry("caches") + "]");

  EXPECT_EQ(program.run({"tips", "caches"}).output, "Tidy up\n  One\n  Two\n  [Do it]\n");
  EXPECT_TRUE(program.isGone("caches"));
  EXPECT_EQ(program.run({"tips", "b.caches"}).code(), 0);
  EXPECT_TRUE(program.isGone("b.caches"));
  const auto ambiguous = program.run({"tips", ".caches"});
  EXPECT_EQ(ambiguous.code(), 1);
  EXPECT_EQ(ambiguous.error, "larkspan: \".caches\" may be any of a.caches, b.caches\n");
  EXPECT_EQ(program.run({"info", "x\x1b"}).error,
            "larkspan: there is no extension \"x\\x1b\"; larkspan extensions says which there are\n");
}

TEST(Command, WritesEveryKindOfValueAsJson) {
  Program program;
  program.add("kinds", "kinds");
  const auto outcome = program.run({"--json", "resources", "kinds"});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(
      flat(outcome.output),
      R"([{"_NAME_":"日本","_KIND_":"RESOURCE"},{"_NAME_":"small","_KIND_":"RESOURCE","_SIZE_":1},)"
      R"({"_NAME_":"evil\u001b[31m\n\u202e","_KIND_":"RESOURCE","_SIZE_":1500000000,"_CATEGORY_":"a",)"
      R"("_URL_":"file:///tmp/a%20b","_MODIFIED_":"2026-11-22T20:38:41.5Z","_DELETABLE_":true,"_%VIEWED_":0.1,)"
      R"("_FPITEM_":"AP8=","_REFDATA_":{"d":1.5,"inf":null,"error":{"domain":"D","code":-3,"description":"Why"},)"
      R"("list":[1,false,-9223372036854775808]}}])");
  const auto info = program.run({"info", "kinds", "--json"});
  EXPECT_EQ(info.output[0], '{');
  EXPECT_NE(info.output.find("\"_SIZE_\": 4500000000"), std::string::npos);
  EXPECT_TRUE(program.isGone("kinds"));
}

TEST(Command, PrintsTablesThatCannotSteerATerminal) {
  Program program;
  program.add("kinds", "kinds");
  program.add("dies", "die");
  EXPECT_EQ(program.run({"resources", "kinds"}).output,
            "NAME                    SIZE  CATEGORY  MODIFIED\n"
            "evil\\x1b[31m\\n\\u202e  1.5 GB  a         2026-11-22 20:38\n"
            "small                 1 byte            –\n"
            "日本                       –            –\n"
            "Total: 3 items, 1.5 GB\n");
  const auto overview = program.run({});
  EXPECT_EQ(overview.code(), 0);
  EXPECT_EQ(overview.output,
            "The die (dies): 4.5 GB\n  failed: dies went away\n\n"
            "The kinds (kinds): 4.5 GB, 3 items, 1.5 GB may go, 1 tip\n"
            "      1.5 GB  evil\\x1b[31m\\n\\u202e\n      1 byte  small\n           –  日本\n");
  EXPECT_TRUE(program.isGone("kinds"));
  EXPECT_TRUE(program.isGone("dies"));
}

TEST(Command, SendsItemsTypedByTheirKeysAndSaysWhatIsWrongWithThem) {
  Program program;
  program.add("echo", "echo");
  const auto ask = [&](const std::string& items) {
    return program.run({"ask", "echo", "ANY", "--json", "--items", "-"}, items);
  };
  const std::string item =
      R"({"_CREATED_":"2026-11-22T20:38:41Z","_DELETABLE_":false,"_ERROR_":{"code":7,"description":"x","domain":"d"},)"
      R"("_ICON_CONSTRUCTOR_":"AAEC","_NAME_":"n","_SIZE_":9007199254740993,"_URL_":"file:///a","_%VIEWED_":1,)"
      R"("mine":[1.5,{"k":true}]})";
  const auto echoed = ask("[" + item + "]");
  EXPECT_EQ(echoed.code(), 0) << echoed.error;
  // The fraction has become a float, and data and dates have kept their kinds on the way.
  EXPECT_EQ(
      flat(echoed.output),
      R"([{"_KIND_":"COMMAND","•COMMAND":"ANY"},{"_%VIEWED_":1.0,"_CREATED_":"2026-11-22T20:38:41Z",)"
      R"("_DELETABLE_":false,"_ERROR_":{"domain":"d","code":7,"description":"x"},"_ICON_CONSTRUCTOR_":"AAEC",)"
      R"("_NAME_":"n","_SIZE_":9007199254740993,"_URL_":"file:///a","mine":[1.5,{"k":true}]}])");
  EXPECT_NE(program.run({"ask", "echo", "ANY", "--items", "-"}, "[" + item + "]")
                .output.find("\n_ICON_CONSTRUCTOR_: 3 bytes of data\n"),
            std::string::npos);

  const std::pair<std::string, std::string> cases[] = {
      {"", "not JSON: parse error at line 1, column 1"},
      {"{}", "must be an array of objects"},
      {"[{}, 1]", "item 1 must be an object"},
      {R"([{}, {"_SIZE_": 1.5}])", "item 1: _SIZE_ must be an integer of 64 bits"},
      {R"([{"_SIZE_": 9223372036854775808}])", "item 0: _SIZE_ must be an integer"},
      {R"([{"x": 9223372036854775808}])", "item 0: x does not fit into 64 bits"},
      {R"([{"_NAME_": null}])", "item 0: _NAME_ must be a text"},
      {R"([{"_CREATED_": "yesterday"}])", "item 0: _CREATED_ must be a date"},
      {R"([{"_URL_": "a b"}])", "item 0: _URL_ must be a URL"},
      {R"([{"_FPITEM_": "AP9="}])", "item 0: _FPITEM_ must be data in base64"},
      {R"([{"_ERROR_": {"domain": "d"}}])", "item 0: _ERROR_ must be an error"},
      {R"([{"_DELETABLE_": 1}])", "item 0: _DELETABLE_ must be true or false"},
      {R"([{"\u001b": )" + std::string(100, '[') + std::string(100, ']') + "}]",
       "item 0: \\x1b is nested deeper"},
      {std::string(16'000'001, ' '), "larger than 16 MB"},
  };
  for (const auto& [items, reason] : cases) {
    const auto outcome = ask(items);
    EXPECT_EQ(outcome.code(), 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.error.starts_with("larkspan: standard input: " + reason)) << outcome.error;
  }
  EXPECT_EQ(program.run({"ask", "echo", "ANY", "--items", "/none"}).error,
            "larkspan: /none: No such file or directory\n");
  // An error in the reply is printed with the reply, and is a failure.
  program.add("kinds", "kinds");
  const auto refused = program.run({"ask", "kinds", "RESOURCE_DELETE"});
  EXPECT_EQ(refused.code(), 1);
  EXPECT_TRUE(refused.output.starts_with("_KIND_: COMMAND\n•COMMAND: RESOURCE_DELETE\n_ERROR_: "))
      << refused.output;
  EXPECT_TRUE(program.isGone("echo"));
}

TEST(Command, ExplainsWrongUsageInOneLine) {
  Program program;
  const std::pair<Words, std::string> cases[] = {
      {{"bogus"}, "(see larkspan --help)"},
      {{"info"}, "ID is required (see larkspan info --help)"},
      {{"extensions", "more"}, "(see larkspan extensions --help)"},
      {{"ask", "a", ""}, "COMMAND: must not be empty (see larkspan ask --help)"},
      {{"--timeout", "0"}, "--timeout: must be a number of seconds above 0"},
      {{"--timeout", "nan"}, "--timeout: must be"},
      {{"--timeout=inf"}, "--timeout: must be"},
  };
  for (const auto& [words, text] : cases) {
    const auto outcome = program.run(words);
    EXPECT_EQ(outcome.code(), 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.error.starts_with("larkspan: ")) << outcome.error;
    EXPECT_NE(outcome.error.find(text), std::string::npos) << outcome.error;
    EXPECT_EQ(outcome.error.find('\n'), outcome.error.size() - 1) << outcome.error;
  }
  EXPECT_EQ(program.run({"ask", "--help"}).code(), 0);
}

TEST(Command, SurvivesExtensionsThatMisbehave) {
  Program program;
  program.add("exit", "exit");
  program.add("noise", "noise");
  program.add("die", "die");
  program.add("chatty", "chatty");
  for (const std::string identifier : {"exit", "noise", "die"}) {
    const auto outcome = program.run({"resources", identifier});
    EXPECT_EQ(outcome.code(), 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.error.starts_with("larkspan: ") && outcome.error.ends_with("\n")) << outcome.error;
    EXPECT_TRUE(program.isGone(identifier));
  }
  const auto chatty = program.run({"tips", "chatty"});
  EXPECT_EQ(chatty.code(), 0);
  EXPECT_TRUE(chatty.output.starts_with("Tidy up\n"));
}

TEST(Command, GivesUpAtTheDeadlineAndLeavesNobodyBehind) {
  Program program;
  program.add("hang", "hang");
  program.add("silent", "silent");
  for (const std::string identifier : {"hang", "silent"}) {
    const auto outcome = program.run({"resources", identifier, "--timeout", "0.3"});
    EXPECT_EQ(outcome.code(), 1);
    EXPECT_EQ(outcome.error, "larkspan: " + identifier + " did not answer within 0.3 seconds\n");
    EXPECT_TRUE(program.isGone(identifier));
  }
  program.add("kinds", "kinds");
  const auto overview = program.run({"--json", "--timeout", "0.5"});
  EXPECT_EQ(overview.code(), 0);
  EXPECT_NE(overview.output.find("\"error\": \"silent did not answer within 0.5 seconds\""),
            std::string::npos);
  EXPECT_NE(overview.output.find("\"_INFOTEXT_\": \"One\\nTwo\""), std::string::npos);
  EXPECT_EQ(program.run({"ask", "kinds", "INFO?", "--items", program.fifo(), "--timeout", "0.2"}).error,
            "larkspan: the items could not be read within 0.2 seconds\n");
}

TEST(Command, EndsAtOnceWhenItIsInterruptedAndTakesEvenStoppedExtensionsAlong) {
  Program program;
  program.add("hang", "hang");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    program.start({"resources", "hang"});
    const pid_t extension = program.extension("hang");
    ASSERT_GT(extension, 0);
    kill(extension, SIGSTOP);
    const auto begin = steady_clock::now();
    kill(program.process(), signal);
    const auto outcome = program.finish();
    EXPECT_LT(steady_clock::now() - begin, 100ms);
    EXPECT_EQ(outcome.code(), 128 + signal);
    EXPECT_EQ(outcome.error, "");
    EXPECT_TRUE(program.isGone("hang"));
  }
}

TEST(Command, FollowsTheSetOfExtensionsUntilItIsInterrupted) {
  Program program;
  program.add("a", "kinds");
  program.start({"extensions", "--watch", "--json", "--timeout", "0.2"});
  EXPECT_NE(program.readLine().find("\"identifier\":\"a\""), std::string::npos);
  program.add("b", "kinds");
  EXPECT_NE(program.readLine().find("\"identifier\":\"b\""), std::string::npos);
  kill(program.process(), SIGINT);
  EXPECT_EQ(program.finish().code(), 130);
}

TEST(Command, ShowsWhatWasFoundSoFarOnATerminalAndTakesItAway) {
  Program program;
  program.add("slow", "slow");
  program.start({"resources", "slow"}, "", true);
  program.waitForError("\r\x1b[K… 2 items, 3 MB");
  close(open(program.fifo().c_str(), O_WRONLY));
  const auto outcome = program.finish();
  EXPECT_EQ(outcome.code(), 0);
  EXPECT_TRUE(outcome.error.ends_with("3 MB\r\x1b[K")) << outcome.error;
  EXPECT_TRUE(outcome.output.ends_with("Total: 3 items, 1.5 GB\n"));
  EXPECT_TRUE(program.isGone("slow"));
}

TEST(Command, EndsQuietlyWithoutAReaderAndLoudlyOnAFullDisk) {
  Program program;
  program.add("kinds", "kinds");
  program.start({"resources", "kinds"});
  program.closeOutput();
  const auto unread = program.finish();
  EXPECT_EQ(unread.code(), 0);
  EXPECT_EQ(unread.error, "");
  EXPECT_TRUE(program.isGone("kinds"));
  program.start({"tips", "kinds"}, "", false, "/dev/full");
  const auto full = program.finish();
  EXPECT_EQ(full.code(), 1);
  EXPECT_EQ(full.error, "larkspan: standard output: No space left on device\n");
}

}  // namespace
}  // namespace larkspan::tests
