#include "larkspan/host/LKSExtensionNotifier.h"
#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

#include <fcntl.h>
#include <signal.h>

namespace larkspan::tests {
namespace {

using namespace platform;
using std::chrono::steady_clock;
using namespace std::chrono_literals;
using Handle = std::shared_ptr<LKSOpaqueExtension>;

/// Answers every call with an empty list of items.
const std::string kAnswer = "=8405@8280f6";
const std::string kGood = "hello call " + kAnswer + " again";

constexpr int64_t code(TransportErrorCode value) { return static_cast<int64_t>(value); }

std::string hex(std::string_view text) {
  std::string digits;
  for (const char byte : text) digits += format("%02x", static_cast<unsigned>(byte) & 0xff);
  return digits;
}

/// A CBOR text of less than 256 bytes.
std::string text(std::string_view content) {
  const char head[] = {'\x78', static_cast<char>(content.size())};
  return hex({head, 2}) + hex(content);
}

/// Kilobytes of this process: the most since the last look.
long peakMemory() {
  long peak = 0;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word && word != "VmHWM:";) {
  }
  EXPECT_TRUE(status >> peak);
  std::ofstream("/proc/self/clear_refs") << 5;
  return peak;
}

/// Counts what is logged of the extensions and keeps none of it.
struct Tally : LogSink {
  void write(const LogRecord& record) override {
    if (record.message.ends_with(" lines were dropped") || record.message.ends_with(" were not logged")) {
      ++summaries;
    } else if (record.category == "extensions") {
      ++printed;
    } else if (record.message.find("communication error") != std::string_view::npos) {
      longestError = std::max(longestError.load(), record.message.size());
    } else {
      called += record.message.starts_with("x sent tipsDidChange");
    }
  }
  std::atomic<std::size_t> printed{0}, called{0}, summaries{0}, longestError{0};
};

/// Leaves this process no more than a few descriptors.
struct Scarcity {
  explicit Scarcity(std::size_t left) {
    for (int one; (one = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) >= 0;) taken.emplace_back(one);
    taken.resize(taken.size() - left);
  }
  const DescriptorLimit limit{256};
  std::vector<Descriptor> taken;
};

/// A host, the extensions that it has found, and what became of each exchange.
struct Hostile : testing::Test, LKSExtensionNotifierDelegate {
  ManifestTree tree;
  const ScopedVariable path{"LARKSPAN_EXTENSION_PATH", tree.root.c_str()};
  const ScopedVariable data{"XDG_DATA_DIRS", "/nowhere"}, home{"XDG_DATA_HOME", "/nowhere"};
  Collector<std::vector<Handle>> sets;
  Collector<Error> errors;
  Collector<std::pair<std::size_t, std::optional<Error>>> outcomes;
  std::size_t sent = 0;
  std::map<std::string, Handle> found;
  std::optional<CapturedLog> log{std::in_place};
  const std::shared_ptr<LKSExtensionNotifierDelegate> delegate{this, [](auto*) {}};
  std::shared_ptr<LKSExtensionNotifier> notifier = LKSExtensionNotifier::init();

  void extensionNotifierDidGetExtensions(LKSExtensionNotifier&, const std::vector<Handle>& set) override {
    sets.push(set);
  }
  void extensionNotifierDidError(LKSExtensionNotifier&, const Error& error) override { errors.push(error); }

  /// Every exchange has ended, once; what still runs is ended with the host's patience.
  void TearDown() override {
    notifier->setDelegate(nullptr);
    notifier->stop();
    for (const auto& [identifier, handle] : found) handle->abandon();
    auto all = outcomes.waitFor(sent);
    std::sort(all.begin(), all.end(), [](auto& a, auto& b) { return a.first < b.first; });
    ASSERT_EQ(all.size(), sent);
    for (std::size_t i = 0; i < sent; ++i) EXPECT_EQ(all[i].first, i);
  }

  void add(const std::string& identifier, const std::string& steps,
           const std::string& program = LARKSPAN_TEST_BIN "/fixtures/hostile_extension") const {
    tree.add(identifier + ".extension", "N", program + ' ' + steps);
  }
  /// Finds them, and with them "good", which always answers.
  void discover() {
    add("good", kGood);
    notifier->setDelegate(delegate);
    notifier->start();
    const auto all = sets.waitFor(1);
    for (const Handle& handle : all.at(0)) found[handle->identifier()] = handle;
  }
  /// How many lines have been logged that begin with this and hold that.
  long countOf(const std::string& start, const std::string& part = "") const {
    const auto lines = log->system();
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.starts_with(start) && line.find(part) != line.npos;
    });
  }
  Handle of(const std::string& identifier) { return found.at(identifier); }

  void send(const std::string& to, const Items& items = {*LKSCommand::initLKSCommandItem(kCmdTips)}) {
    of(to)->processInputItems(items, [this, number = sent++](const auto&, const auto& error) {
      outcomes.push({number, error});
    });
  }
  /// One exchange by itself.
  std::optional<Error> ask(const std::string& to) {
    const auto answers = std::make_shared<Collector<std::optional<Error>>>();
    of(to)->processInputItems({*LKSCommand::initLKSCommandItem(kCmdTips)},
                              [answers](const auto&, const auto& error) { answers->push(error); });
    return answers->waitFor(1).at(0);
  }
  /// The same where it must fail.
  Error failure(const std::string& to) { return ask(to).value_or(Error("test", 0, "no failure")); }
  /// Waits for all; each from that one on was answered by the victim, or failed so.
  void expectAnsweredOr(std::initializer_list<TransportErrorCode> codes, std::size_t first) {
    for (const auto all = outcomes.waitFor(sent); first < sent; ++first) {
      const Error error = all.at(first).second.value_or(Error("test", 0, "no failure"));
      const auto is = [&](TransportErrorCode one) { return isTransportError(error, one); };
      EXPECT_TRUE(error.domain() == "pid" || std::any_of(codes.begin(), codes.end(), is))
          << error.localizedDescription();
    }
  }
  /// Waits for what comes without a word; others are served meanwhile.
  template <typename Condition>
  testing::AssertionResult becomes(Condition condition) {
    const auto deadline = steady_clock::now() + 10s;
    do {
      if (condition()) return testing::AssertionSuccess();
      if (const auto error = ask("good")) return testing::AssertionFailure() << error->localizedDescription();
    } while (steady_clock::now() < deadline);
    return testing::AssertionFailure() << "not within ten seconds";
  }
};

TEST_F(Hostile, ABadFrameIsNamedInOneLineAndEndsThatConnectionAlone) {
  const ManualClock noGrace;
  const std::string reply = "=8405@82", item = reply + "81D81B82";
  // Nearly as many values in the rows of one part as a reply may have.
  std::string keys, columns;
  for (const char* key = "abcdefghijklmnop"; *key; ++key) {
    keys += text({key, 1});
    columns += "82" + text("same") + "01";
  }
  const std::string manyRows = "=8407@8181D81B82" + text("Table") + "A4" + text("class") +
                               text("ExtensionItem") + text("keys") + "90" + keys + text("rows") +
                               "1A0001E780" + text("columns") + "90" + columns;
  // What an extension does, "hello call" in front unless it begins with a dot, and the fault that is named.
  const std::pair<std::string, std::string> cases[] = {
      {". =8405010180", "The first frame is no hello"},
      {". +" + hex("HTTP/1.1 200 OK\r\n"), "more than the limit of 33554432"},
      {". =8200A1617801", "The hello names another protocol"},
      {". =8200A2" + text("protocol") + text("larkspan") + text("version") + "02",
       "The peer speaks version 2 of the protocol"},
      {". =8200A16178D81B82" + text("Evil") + "A0", "An object of the class \"Evil\" is not allowed here"},
      {". hello hello", "A second hello"},
      {"+4000000001", "A frame of 1073741824 bytes, more than the limit of 33554432"},
      {"+00000000", "The bytes end inside an item"},
      {"=05", "A frame is an array"},
      {"=820901", "Unknown type of frame"},
      {"=83050101", "A frame of the wrong number of members"},
      {"=82021B0000000100000000", "No channel"},
      {"=82011844", "A channel that cannot be opened"},
      {reply + "9A40000000", "The bytes end inside an item"},
      {reply + "8061FF", "Text that is not UTF-8"},
      {reply + hex(std::string(100, '\x81')) + "00F6", "More than 64 levels of nesting"},
      {item + text("Table") + "A0F6", "A malformed table"},
      {reply + "80F600", "Bytes follow the item"},
      {reply + "806178", "A string is not allowed here"},
      {item + text("Evil") + "A0F6", "An object of the class \"Evil\" is not allowed here"},
      {"=8405@8180", "A message with the wrong number of values"},
      {"=8406@F6", "A failure without an error"},
      {"=8406@00", "A number is not allowed here"},
      {"=8405!008280F6", "An answer to no call, or a second one"},
      {kAnswer + ' ' + kAnswer, "An answer to no call, or a second one"},
      {"=8407!008180", "An answer to no call, or a second one"},
      {"=8407@80", "A message with the wrong number of values"},
      {"=8407@8181D81B82" + text("Evil") + "A0", "An object of the class \"Evil\" is not allowed here"},
      {manyRows + ' ' + manyRows, "Tables of more than 2000000 values"},
      {"=8404!" + text(kNotifyTotalSpaceUsedDidChange) + "82" + text("x") + text("y"),
       "A string is not allowed here"},
      {"+0000000984 eof", "The connection ended inside a frame"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string& steps = cases[i].first;
    // It then stays, whatever it reads or does not.
    add("bad." + std::to_string(i), (steps[0] == '.' ? steps : "hello call " + steps) + " hang");
  }
  discover();
  EXPECT_FALSE(ask("good"));
  const long before = peakMemory();
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [steps, fault] = cases[i];
    SCOPED_TRACE(steps);
    const std::string name = "bad." + std::to_string(i);
    send(name);
    const std::string ended = "Connection to " + name + " ended: ";
    EXPECT_TRUE(becomes([&] { return countOf(name + " ended: signal 9 (Killed)") == 1; }));
    const auto error = outcomes.waitFor(sent).back().second;
    const bool hasAnswered = steps.starts_with(kAnswer);
    EXPECT_EQ(error ? error->code() : 0, hasAnswered ? 0 : code(TransportErrorCode::violation));
    EXPECT_EQ(countOf(ended), 1);
    EXPECT_EQ(countOf(ended, fault), 1) << fault;
  }
  EXPECT_TRUE(kIsSanitized || peakMemory() - before < 16 * 1024);
}

TEST_F(Hostile, AThousandKillsAtAnyMomentEndEachExchangeOnceAndLeaveNothing) {
  // So that it dies between the parts of an answer, and inside a frame.
  add("victim", "hello call =8407@8180 :8407@8181D81B82" + text("ExtensionItem") + "A1" + text("userInfo") +
                    "A0 pid again");
  discover();
  constexpr int kKills = kIsSanitized ? 100 : 1000;
  int64_t process = 0;
  for (int i = 0; i < kKills; ++i) {
    // That it answers shows that it runs again, and keeps its starts from counting.
    const Error answer = failure("victim");
    ASSERT_EQ(answer.domain(), "pid") << answer.localizedDescription();
    ASSERT_NE(std::exchange(process, answer.code()), answer.code());
    const std::size_t before = sent;
    for (int call = 0; call < 4; ++call) {
      if (call == i % 4) kill(static_cast<pid_t>(answer.code()), SIGKILL);
      send("victim");
      const auto until = steady_clock::now() + i % 100 * 2us;
      while (steady_clock::now() < until) {
      }
    }
    expectAnsweredOr({TransportErrorCode::interrupted, TransportErrorCode::violation}, before);
  }
}

TEST_F(Hostile, KillsDuringTheStartEndEachExchangeOnce) {
  ManualClock clock;
  add("victim", "hello call pid again");
  discover();
  for (int i = 0; i < (kIsSanitized ? 40 : 200); ++i) {
    send("victim");
    send("victim");
    // From before it runs its program until it has answered.
    const auto start = steady_clock::now();
    std::vector<pid_t> running;
    while (steady_clock::now() < start + i % 50 * 100us ||
           (running.empty() && outcomes.now().size() < sent)) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream children(task.path() / "children");
        for (pid_t one; children >> one;) running.push_back(one);
      }
    }
    for (const pid_t process : running) kill(process, SIGKILL);
    expectAnsweredOr({TransportErrorCode::interrupted}, sent - 2);
    clock.advance(limits::kStartWindow);
  }
}

TEST_F(Hostile, StartsThatEndWithoutAnAnswerAreFewUntilADelayHasPassed) {
  ManualClock clock;
  const std::string file = tree.path("exists"), unless = " if " + file + ' ';
  const std::pair<const char*, std::string> cases[] = {
      {"start", unless + kGood},
      {"hello", "hello" + unless + "call " + kAnswer + " again"},
      {"call", "hello call" + unless + kAnswer + " again"}};
  for (const auto& [name, steps] : cases) add(name, steps);
  add("closes", "hello call =8202! drain");
  discover();
  for (const auto& [name, steps] : cases) {
    SCOPED_TRACE(name);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(failure(name).code(), code(TransportErrorCode::interrupted));
    EXPECT_EQ(failure(name).code(), code(TransportErrorCode::launchDelayed));
  }
  // One that closes its channel instead, and is let go.
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(failure("closes").code(), code(TransportErrorCode::invalidated));
    EXPECT_TRUE(becomes([&] { return countOf("closes ended: exit code 3") == i + 1; }));
  }
  EXPECT_EQ(failure("closes").code(), code(TransportErrorCode::launchDelayed));
  tree.write("exists", "");
  clock.advance(179s);
  for (const auto& [name, steps] : cases) {
    EXPECT_EQ(
        failure(name).localizedDescription(),
        name + std::string(" ended 5 times right after its start; it is not started again for 1 seconds"));
  }
  clock.advance(1s);
  for (const auto& [name, steps] : cases) EXPECT_FALSE(ask(name));
}

TEST_F(Hostile, ThoseThatHangOrFloodHoldNobodyUpAndTakeNoMemory) {
  log.reset();
  const auto tally = std::make_shared<Tally>();
  const ScopedLogSink scope(tally);
  const std::string flood = "^8404!" + text(kNotifyTipsDidChange) + "82" + text("x") + "80";
  const std::pair<const char*, std::string> cases[] = {
      {"mute", "hang"},
      {"wordy", "hello call =8406@D81B82654572726F72A1" + text("domain") + "790708" +
                    hex(std::string(0x708, 'd')) + " drain"},
      {"silent", "hello call pid call hang again"},
      {"stopped", "hello call stop"},
      {"urgent", "hello call urgent drain"},
      {"calling", "hello call " + flood},
      {"printing", "hello call print"},
      {"mumbling", "hello call mumble"},
  };
  for (const auto& [name, steps] : cases) add(name, steps);
  discover();
  EXPECT_FALSE(ask("good"));
  const long memory = peakMemory();
  const Error before = failure("silent");
  for (const auto& [name, steps] : cases) send(name);
  // As many lines as one with empty ones may log, and one with lines of 4096 bytes.
  using namespace limits;
  constexpr std::size_t kMost = kMaximumPrint / kPrintOverhead + kMaximumPrint / (4096 + kPrintOverhead);
  constexpr std::size_t kMostCalls = kMaximumPrint / (1 + kPrintOverhead);
  EXPECT_TRUE(becomes([&] { return tally->printed >= kMost && tally->called >= kMostCalls; }));
  const auto start = steady_clock::now();
  for (int i = 0; i < 300; ++i) EXPECT_FALSE(ask("good"));
  EXPECT_TRUE(kIsSanitized || steady_clock::now() - start < 10s) << "nor does anybody wait long";
  EXPECT_EQ(tally->printed, kMost);
  EXPECT_EQ(tally->called, kMostCalls);
  EXPECT_TRUE(kIsSanitized || peakMemory() - memory < 16 * 1024);
  // The host's patience ends: each exchange fails, once, and a new one finds a new process.
  for (const auto& [name, steps] : cases) of(name)->abandon();
  for (const auto& [number, error] : outcomes.waitFor(sent)) EXPECT_TRUE(error);
  EXPECT_LT(tally->longestError - kMaximumLoggedError, 512U) << "what an error says is cut";
  const Error after = failure("silent");
  EXPECT_TRUE(after.domain() == "pid" && after.code() != before.code()) << after.localizedDescription();
  EXPECT_TRUE(becomes([&] { return tally->summaries == 3; })) << "what was dropped is said once for each";
}

TEST_F(Hostile, OneThatDoesNotReadIsEndedOnceTooMuchWaitsForIt) {
  add("deaf", "hello call " + kAnswer + " hang");
  // Each of its calls has to be refused.
  add("asking", kIsSanitized ? "hang" : "hello call " + kAnswer + " ^8503!01" + text("x") + "80");
  discover();
  EXPECT_FALSE(ask("deaf"));
  auto item = *LKSCommand::initLKSCommandItem(kCmdTips);
  item.setUserInfoObject(Data::copy(std::string(limits::kMaximumFrame / 4, 'x')), "x");
  // Just enough: one more would find a new process, and wait for it.
  for (int i = 0; i < 9; ++i) send("deaf", {item});
  EXPECT_TRUE(becomes([&] { return outcomes.now().size() == sent; }));
  EXPECT_EQ(countOf("Connection to deaf ended: deaf does not read what is sent to it"), 1);
  if (kIsSanitized) return;
  const long memory = peakMemory();
  EXPECT_FALSE(ask("asking"));
  EXPECT_TRUE(becomes([&] { return countOf("Connection to asking ended: asking does not read") == 1; }));
  EXPECT_LT(peakMemory() - memory, 64 * 1024);
}

TEST_F(Hostile, WithoutDescriptorsTheErrorsSaySoAndNothingIsForgotten) {
  discover();
  EXPECT_FALSE(ask("good"));
  int failures = 0, successes = 0;
  for (std::size_t left = 0; left < 16; ++left) {
    // The request before ends with its process.
    of("good")->setContext(nullptr);
    EXPECT_TRUE(becomes([&] { return true; }));
    of("good")->abandon();
    std::optional<Error> error;
    {
      const Scarcity scarcity(left);
      error = ask("good");
    }
    ++(error ? failures : successes);
    if (error) {
      EXPECT_EQ(error->code(), code(TransportErrorCode::launchFailed));
      EXPECT_NE(error->localizedDescription().find("Too many open files"), std::string::npos)
          << error->localizedDescription();
    }
    EXPECT_FALSE(ask("good"));
  }
  EXPECT_TRUE(failures > 2 && successes > 2);

  // Manifests stay, and new ones come once there are some. One leaves enough for the folder, two for the
  // manifest's folder too.
  for (std::size_t left = 1; left < 3; ++left) {
    SCOPED_TRACE(left);
    const std::size_t before = sets.now().size();
    const std::string name = "new." + std::to_string(left) + ".extension", later = tree.add("later/" + name);
    {
      const Scarcity scarcity(left);
      std::filesystem::rename(later, tree.path(name));
      EXPECT_EQ(errors.waitFor(left).size(), left);
    }
    EXPECT_EQ(sets.waitFor(before + 1).back().size(), 1 + left);
  }
}

TEST_F(Hostile, AnExtensionLeavesByItselfWhenNobodyNeedsItAndIsEndedIfItStays) {
  ManualClock clock;
  add("leaves", "kinds", LARKSPAN_TEST_BIN "/fixtures/fixture_extension");
  add("stays", "hello call " + kAnswer + " hang");
  add("closes", "hello call " + kAnswer + " eof hang");
  discover();
  for (const char* name : {"leaves", "stays", "closes"}) {
    EXPECT_FALSE(ask(name));
    of(name)->setContext(nullptr);
  }
  EXPECT_TRUE(becomes([&] { return countOf("leaves ended: exit code 0") == 1; }));
  EXPECT_TRUE(becomes([&] {
    clock.advance(1s);
    return countOf("stays ended: signal 9 (Killed)") + countOf("closes ended: signal 9 (Killed)") == 2;
  }));
}

TEST_F(Hostile, AThousandManifestsAreFoundAtOnceAndWhatIsWrongWithOneIsItsOwn) {
  for (int i = 0; i < 1000; ++i) add("x" + std::to_string(i), kGood);
  for (int i = 0; i < 100; ++i) tree.write("bad" + std::to_string(i) + ".extension", "[Extension]\nName");
  add("world", kGood);
  chmod(tree.path("world.extension").c_str(), 0666);
  add("missing", "", "/no/such/program");
  tree.add("later/good.extension", "N", "/no/such/program");
  const ScopedVariable both{"LARKSPAN_EXTENSION_PATH", (tree.root + ':' + tree.path("later")).c_str()};
  discover();
  EXPECT_EQ(found.size(), 1002u);
  EXPECT_EQ(log->system().size(), 101u);
  EXPECT_FALSE(ask("good")) << "the first of a name wins";
  EXPECT_EQ(failure("missing").localizedDescription(),
            "missing could not be started: /no/such/program: execve: No such file or directory");
  EXPECT_EQ(of("missing")->context(), nullptr);
  EXPECT_EQ(countOf("", " failed to begin extension request to <Extension missing"), 1);
  // One that is removed while it is in use goes on until its handle goes.
  EXPECT_FALSE(ask("x7"));
  unlink(tree.path("x7.extension").c_str());
  EXPECT_EQ(sets.waitFor(2).back().size(), 1001u);
  EXPECT_FALSE(ask("x7"));
  // Many at once come in few sets.
  const auto start = steady_clock::now();
  for (int i = 0; i < 300; ++i) add("y" + std::to_string(i), kGood);
  const auto most = 6 + (steady_clock::now() - start) / 80ms;
  while (sets.now().back().size() < 1301 && steady_clock::now() < start + 10s) std::this_thread::yield();
  EXPECT_EQ(sets.now().back().size(), 1301u);
  EXPECT_LE(sets.now().size(), static_cast<std::size_t>(most));
}

TEST_F(Hostile, ANotifierHandsOverSetsAndErrorsWhileItIsStarted) {
  notifier->setDelegate(delegate);
  for (int i = 0; i < 2; ++i) notifier->start();
  EXPECT_EQ(sets.waitFor(1).size(), 1u) << "the empty set is no error, and it starts once";
  for (int i = 0; i < 2; ++i) notifier->stop();
  notifier->serialAccessQueue()->sync([] {});
  EXPECT_EQ(notifier->matchingContext(), nullptr);
  add("a", kGood);
  notifier->start();
  EXPECT_EQ(sets.waitFor(2).back().size(), 1u);
  notifier->handleMatchingResponse(std::nullopt, Error("test", 4));
  notifier->setDelegate(nullptr);
  notifier->handleMatchingResponse(std::vector<Manifest>{}, std::nullopt);
  EXPECT_EQ(errors.now(), std::vector{Error("test", 4)});
  EXPECT_EQ(sets.now().size(), 2u);
}

}  // namespace
}  // namespace larkspan::tests
