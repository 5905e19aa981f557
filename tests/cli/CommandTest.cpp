#include "larkspan/platform/text/SizeText.h"
#include "tests/cli/Program.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace larkspan::tests {
namespace {

using std::chrono::steady_clock;
// The thread sanitizer alone sleeps a second at exit.
constexpr std::chrono::milliseconds kSignalPatience{kIsSanitized ? 3000 : 1500};
namespace fs = std::filesystem;
using Words = std::vector<std::string>;

/// JSON without its layout.
std::string flat(std::string json) {
  std::erase_if(json, [](char c) { return c == ' ' || c == '\n'; });
  return json;
}

TEST(Command, ListsTheExtensionsBesideItAndFindsOneByItsEnding) {
  Program program;
  const std::string folder = program.tree().path("share/larkspan/extensions");
  EXPECT_EQ(program.run({"extensions", "--json"}).output, "[]\n");
  EXPECT_TRUE(program.run({}).output.ends_with(folder + "\n"));
  const auto entry = [&](const std::string& identifier) {
    program.add(identifier, "kinds");
    return R"({"identifier":")" + identifier + R"(","name":"Thekinds","manifest":")" + folder + "/" +
           identifier + R"(.extension","executable":")" LARKSPAN_TEST_BIN R"(/fixtures/fixture_extension"})";
  };
  const std::string all = "[" + entry("a.caches") + "," + entry("b.caches") + "," + entry("caches") + "]";
  EXPECT_EQ(flat(program.run({"extensions", "--json"}).output), all);

  EXPECT_EQ(program.run({"tips", "caches"}).output, "Tidy up\n  One\n  Two\n  [Do it]\n");
  EXPECT_TRUE(program.isGone("caches"));
}

TEST(Command, WritesEveryKindOfValueAsJsonAndTablesThatCannotSteerATerminalWhoeverFails) {
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
  const auto info = program.run({"info", "kinds", "--json"}).output;
  EXPECT_TRUE(info[0] == '{' && info.find("\"_SIZE_\": 4500000000") != info.npos) << info;
  EXPECT_TRUE(program.isGone("kinds"));
  EXPECT_EQ(program.run({"resources", "kinds"}).output,
            "NAME                    SIZE  CATEGORY  MODIFIED\n"
            "evil\\x1b[31m\\n\\u202e  1.5 GB  a         2026-11-22 20:38\n"
            "small                 1 byte            –\n"
            "日本                       –            –\n"
            "Total: 3 items, 1.5 GB\n");
  program.add("sums", "summary");
  EXPECT_EQ(program.run({"resources", "sums"}).output,
            "All\\tin all\nNAME     SIZE  CATEGORY  MODIFIED\nsmall  1 byte            –\n"
            "Total: 1 item, 1 byte\n");
  fs::remove(program.tree().path("share/larkspan/extensions/sums.extension"));
  program.add("dies", "die");
  const auto overview = program.run({});
  EXPECT_EQ(overview.code(), 0);
  // Whichever is noticed first: the end of the connection or that of the process.
  std::string output = overview.output;
  const std::string_view status = "dies ended: exit code 3";
  if (const auto at = output.find(status); at != output.npos)
    output.replace(at, status.size(), "dies went away");
  EXPECT_EQ(output,
            "The die (dies): 4.5 GB\n  failed: dies went away\n\n"
            "The kinds (kinds): 4.5 GB, 3 items, 1.5 GB may go, 1 tip\n"
            "      1.5 GB  evil\\x1b[31m\\n\\u202e\n      1 byte  small\n           –  日本\n");

  program.add("silent", "silent");
  const auto waited = program.run({"resources", "silent", "--timeout", "0.5"});
  EXPECT_EQ(waited.code(), 1);
  EXPECT_EQ(waited.output, "");
  const auto json = program.run({"--json", "--timeout", "0.5"});
  EXPECT_EQ(json.code(), 0);
  for (const char* part :
       {"\"error\": \"silent did not answer within 0.5 seconds\"", "\"_INFOTEXT_\": \"One\\nTwo\""})
    EXPECT_NE(json.output.find(part), std::string::npos) << json.output;
  for (const char* name : {"kinds", "dies", "silent"}) EXPECT_TRUE(program.isGone(name)) << name;
}

TEST(Command, SendsItemsTypedByTheirKeysAndSaysInOneLineWhatIsWrong) {
  Program program;
  for (const char* name : {"echo", "a.echo", "b.echo"}) program.add(name, "echo");
  const Words ask{"ask", "echo", "ANY", "--json", "--items", "-"};
  const std::string item =
      R"({"_CREATED_":"2026-11-22T20:38:41Z","_DELETABLE_":false,"_ERROR_":{"code":7,"description":"x","domain":"d"},)"
      R"("_ICON_CONSTRUCTOR_":"AAEC","_NAME_":"n","_SIZE_":9007199254740993,"_URL_":"file:///a","_%VIEWED_":1,)"
      R"("mine":[1.5,{"k":true}]})";
  const auto echoed = program.run(ask, "[" + item + "]");
  EXPECT_EQ(echoed.code(), 0) << echoed.error;
  // The fraction has become a float, and data and dates have kept their kinds on the way.
  EXPECT_EQ(
      flat(echoed.output),
      R"([{"_KIND_":"COMMAND","•COMMAND":"ANY"},{"_%VIEWED_":1.0,"_CREATED_":"2026-11-22T20:38:41Z",)"
      R"("_DELETABLE_":false,"_ERROR_":{"domain":"d","code":7,"description":"x"},"_ICON_CONSTRUCTOR_":"AAEC",)"
      R"("_NAME_":"n","_SIZE_":9007199254740993,"_URL_":"file:///a","mine":[1.5,{"k":true}]}])");
  EXPECT_TRUE(program.isGone("echo"));

  const std::pair<std::string, std::string> items[] = {
      {"", "not JSON: parse error at line 1, column 1"},
      {R"([{}, {"_SIZE_": 1.5}])", "item 1: _SIZE_ must be an integer of 64 bits"},
      {R"([{"x": 9223372036854775808}])", "item 0: x does not fit into 64 bits"},
      {R"([{"_CREATED_": "yesterday"}])", "item 0: _CREATED_ must be a date"},
      {R"([{"_FPITEM_": "AP9="}])", "item 0: _FPITEM_ must be data in base64"},
      {R"([{"\u001b": )" + std::string(100, '[') + std::string(100, ']') + "}]",
       "item 0: \\x1b is nested deeper"},
      {std::string(16'000'001, ' '), "larger than 16 MB"},
  };
  const std::pair<Words, std::string> usages[] = {
      {{"info"}, "ID is required (see larkspan info --help)"},
      {{"ask", "a", ""}, "COMMAND: must not be empty (see larkspan ask --help)"},
      {{"--timeout", "nan"}, "--timeout: must be"},
      {{"watch"}, "PATH is required (see larkspan watch --help)"},
      {{"size", ""}, "PATH: must not be empty (see larkspan size --help)"},
      {{"watch", "/", "--latency", "-1"}, "--latency: must be"},
      {{"tips", ".echo"}, "\".echo\" may be any of a.echo, b.echo\n"},
      {{"info", "x\x1b"}, "there is no extension \"x\\x1b\"; larkspan extensions says which there are\n"},
      {{"ask", "echo", "ANY", "--items", "/none"}, "/none: No such file or directory\n"},
      {{"watch", "/", "/none"}, "/none: No such file or directory\n"},
      {{"ask", "echo", "ANY", "--items", program.fifo(), "--timeout", "0.2"},
       "the items could not be read within 0.2 seconds\n"},
  };
  const auto fails = [&](const Words& words, const std::string& input, int code, const std::string& text) {
    const auto outcome = program.run(words, input);
    EXPECT_EQ(outcome.code(), code) << text;
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.error.starts_with("larkspan: " + text)) << outcome.error;
    EXPECT_EQ(outcome.error.find('\n') + 1, outcome.error.size()) << outcome.error;
  };
  for (const auto& [text, reason] : items) fails(ask, text, 1, "standard input: " + reason);
  for (const auto& [words, text] : usages) fails(words, "", text.ends_with('\n') ? 1 : 2, text);
}

TEST(Command, SizesFoldersAndShowsWhereItGoes) {
  Program program;
  const std::string root = program.tree().path("sized");
  program.tree().write("sized/large/f", std::string(60'000, 'x'));
  program.tree().write("sized/small\x1b/deep/f", std::string(4000, 'x'));
  const auto json = [](const std::string& path, int64_t bytes, int entries) {
    return "{\"path\":\"" + path + "\",\"bytes\":" + std::to_string(bytes) +
           ",\"entries\":" + std::to_string(entries);
  };
  const auto own = [&](const std::string& name) { return program.tree().allocated("sized" + name); };
  const int64_t large = own("/large") + own("/large/f");
  const int64_t small = own("/small\x1b") + own("/small\x1b/deep") + own("/small\x1b/deep/f");
  const std::string whole = json(root, large + small, 5) + R"(,"unreadable":0)";
  const auto some = program.run({"size", root + "/./nowhere/..", root + "/large/f", "--json"});
  EXPECT_EQ(some.code(), 1);
  EXPECT_EQ(flat(some.output), "[{\"path\":\"" + root +
                                   "/./nowhere/..\",\"error\":\"Nosuchfileordirectory\"}," +
                                   json(root + "/large/f", own("/large/f"), 1) + ",\"unreadable\":0}]");
  EXPECT_EQ(some.error, "larkspan: " + root + "/./nowhere/..: No such file or directory\n");
  EXPECT_EQ(program.run({"size", root, "--exclude", root + "/../sized/large"}).output,
            platform::sizeText(small) + "  " + root + "\n");
  const auto lines = program.run({"size", root, "--depth", "1"}).output;
  const auto first = lines.find(platform::sizeText(large) + "  ███████████████");
  EXPECT_LT(first, lines.find("  small\\x1b")) << lines;
  EXPECT_EQ(flat(program.run({"size", root, "--depth", "1", "--json"}).output),
            "[" + whole + R"(,"folders":[)" + json(root + "/large", large, 2) + "}," +
                json(root + "/small\\u001b", small, 3) + "}]}]");

  // Until it is told to end it sizes much more than the first redrawing of the line takes.
  Words much{"size"};
  much.insert(much.end(), 10'000, "/usr");
  program.start(much, "", {"env", "TERM=xterm"}, true);
  program.awaitText("/usr", false);
  kill(program.process(), SIGINT);
  const auto ended = program.finish();
  EXPECT_EQ(ended.code(), 128 + SIGINT);
  EXPECT_TRUE(ended.error.starts_with("\r\x1b[K… ")) << ended.error;
  EXPECT_TRUE(ended.error.ends_with("\r\x1b[K")) << ended.error;
}

TEST(Command, EndsAtOnceWhenItIsInterruptedAndTakesEvenStoppedExtensionsAlong) {
  Program program;
  program.add("hang", "hang");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
    program.start({"resources", "hang"});
    const pid_t extension = program.extension("hang");
    ASSERT_GT(extension, 0);
    kill(extension, SIGSTOP);
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, extension, 0)), POLLIN, 0};
    const auto begin = steady_clock::now();
    kill(program.process(), signal);
    const auto outcome = program.finish();
    EXPECT_LT(steady_clock::now() - begin, kSignalPatience);
    EXPECT_EQ(outcome.code(), signal == SIGKILL ? -1 : 128 + signal);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(poll(&end, 1, 10000), 1);
    close(end.fd);
    EXPECT_TRUE(program.isGone("hang"));
  }
  // When it gives up by itself, in the middle of a call.
  EXPECT_EQ(program.run({"resources", "hang", "--timeout", "0.4"}).code(), 1);
  EXPECT_TRUE(program.isGone("hang"));
}

TEST(Command, PrintsALineForEachBatchOfChanges) {
  Program program;
  const std::string one = program.tree().path("one"), two = program.tree().path("tw\to");
  fs::create_directory(one);
  fs::create_directory(two);
  program.start({"watch", one, "--latency", "0", "--json", "--ignore-metadata"});
  program.awaitText("watching", false);
  fs::permissions(one, fs::perms::owner_all);  // Makes an empty batch, or none.
  program.tree().write("one/\xff", "");
  program.awaitText("\n", true);
  kill(program.process(), SIGINT);
  auto outcome = program.finish();
  EXPECT_EQ(outcome.output.substr(0, outcome.output.find('\n')), "{\"paths\":[\"" + one + "/\uFFFD\"]}");
  EXPECT_EQ(outcome.code(), 128 + SIGINT);
  EXPECT_EQ(outcome.error, "larkspan: watching\n");

  program.start({"watch", one, two, "--latency", "0.3"});
  program.awaitText("watching", false);
  fs::create_directory(one + "/a");
  fs::create_directory(two + "/b");
  program.awaitText("\n", true);
  program.closeOutput();
  fs::create_directory(one + "/c");
  outcome = program.finish();
  EXPECT_EQ(outcome.output, one + "/a\t" + program.tree().path("tw\\to") + "/b\n");
  EXPECT_EQ(outcome.code(), 0) << "nobody reads any more";
}

/// What runs the command with one limit of inotify(7) set so.
Words limited(const std::string& limit, int value) {
  const std::string script = "echo " + std::to_string(value) + " >/proc/sys/user/" + limit + "; exec \"$@\"";
  return {"unshare", "-Ur", "sh", "-c", script, "sh"};
}

TEST(Command, FollowsExtensionsWhateverTheLimitsAndSaysWhichKeepItFromWatchingFolders) {
  // So few descriptors that what lasts for the life of a process finds none.
  const Words few{"prlimit", "--nofile=4:1024"}, fewer{"prlimit", "--nofile=5:1024"};
  for (const Words& under : {Words(), few, fewer, limited("max_inotify_instances", 0)}) {
    const bool lacksDescriptors = !under.empty() && under.front() == "prlimit";
    if (!under.empty() && !lacksDescriptors && std::system("unshare -Ur true 2>/dev/null") != 0)
      GTEST_SKIP() << "needs namespaces";
    Program program;
    program.start({"extensions", "--watch", "--json", "--timeout", "0.2"}, "", under);
    if (lacksDescriptors) {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      const rlimit enough{1024, 1024};
      ASSERT_EQ(prlimit(program.process(), RLIMIT_NOFILE, &enough, nullptr), 0);
    }
    program.awaitText("[]\n", true);
    for (const char* name : {"a", "b"}) {
      program.add(name, "kinds");
      program.awaitText(std::string("{\"identifier\":\"") + name, true);
    }
    kill(program.process(), SIGINT);
    const auto outcome = program.finish();
    EXPECT_TRUE(outcome.code() == 128 + SIGINT || (lacksDescriptors && WTERMSIG(outcome.status) == SIGINT))
        << outcome.error;
  }

  Program program;
  for (int i = 0; i < 40; ++i) fs::create_directories(program.tree().path("tree/" + std::to_string(i)));
  const auto start = [&](const std::string& limit, int value) {
    program.start({"watch", program.tree().path("tree"), "--json", "--latency", "0"}, "",
                  limited(limit, value));
  };
  const std::tuple<const char*, int, const char*> limits[] = {
      {"max_inotify_watches", 20, "No space left on device (fs.inotify.max_user_watches"},
      {"max_inotify_instances", 0, "Too many open files (fs.inotify.max_user_instances"}};
  for (const auto& [limit, value, text] : limits) {
    start(limit, value);
    const auto outcome = program.finish();
    EXPECT_EQ(outcome.code(), 1);
    const auto at = outcome.error.find(std::string("larkspan: Folders cannot be watched: ") + text);
    EXPECT_NE(at, std::string::npos) << outcome.error;
  }
  start("max_inotify_watches", 60);
  program.awaitText("watching\n", false);
  for (int i = 40; i < 80; ++i) fs::create_directories(program.tree().path("tree/" + std::to_string(i)));
  program.awaitText("looked at twice a minute, as they cannot be watched: No space left on device", false);
  program.awaitText("/tree\"", true);
  kill(program.process(), SIGTERM);
  EXPECT_EQ(program.finish().code(), 128 + SIGTERM);
}

}  // namespace
}  // namespace larkspan::tests
