#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/ipc/Frame.h"
#include "larkspan/platform/ipc/Listener.h"
#include "larkspan/platform/ipc/PassedObject.h"
#include "larkspan/platform/ipc/ServiceConnector.h"
#include "larkspan/platform/ipc/ServiceFile.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/process/Child.h"
#include "tests/fixtures/ServiceInterface.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace larkspan::tests {
namespace {

using namespace platform;

const std::string kProgram = LARKSPAN_TEST_BIN "/fixtures/fixture_service";
constexpr uid_t kOther = 4321;

/// Services of this test alone. What has been started is ended with it.
struct Services : testing::Test {
  // Failed starts count against a name as long as the process lives.
  const std::string name =
      std::string("corvane.test.") + testing::UnitTest::GetInstance()->current_test_info()->name();
  ManifestTree tree;
  // No address of a socket holds a path that long.
  const std::string runtime = tree.path(std::string(120, 'r'));
  const std::string socketPath = runtime + "/larkspan/" + name, starts = tree.path("starts");
  const ScopedVariable run{"XDG_RUNTIME_DIR", runtime.c_str()},
      home{"XDG_DATA_HOME", tree.path("home").c_str()}, data{"XDG_DATA_DIRS", tree.path("system").c_str()};
  CapturedLog log;

  Services() { mkdir(runtime.c_str(), 0700); }
  ~Services() override {
    for (const pid_t process : started()) kill(process, SIGKILL);
    log.systemOnceItHas(name + " ended: ", started().size());
  }
  /// One that runs the fixture, or has that for a program, and more keys.
  std::string serviceFile(const std::string& more = "", const std::string& program = kProgram) const {
    return tree.write(
        "home/larkspan/services/" + name + ".service",
        "[Service]\nIdentifier=" + name + "\nExec=" + program + ' ' + name + ' ' + starts + more + '\n');
  }
  std::vector<pid_t> started() const {
    std::vector<pid_t> all;
    std::ifstream file(starts);
    for (pid_t one; file >> one;) all.push_back(one);
    return all;
  }

  struct Outcome {
    Value value;
    std::optional<Error> error;
  };
  /// Calls a method of the service once for each connection, all at the same time.
  std::vector<Outcome> call(std::string_view method,
                            const std::vector<std::shared_ptr<Connection>>& connections,
                            const std::vector<Value>& arguments = {}) {
    Collector<Outcome> outcomes;
    for (const auto& connection : connections) {
      connection->setRemoteInterface(serviceInterface());
      connection->call(method, arguments, [&](const auto& values, const auto& error) {
        outcomes.push({values.empty() ? Value() : values[0], error});
      });
    }
    return outcomes.waitFor(connections.size());
  }
  Outcome call(std::string_view method, const std::shared_ptr<Connection>& connection) {
    return call(method, std::vector{connection}).at(0);
  }
  bool isLogged(std::string_view part) const {
    return std::ranges::any_of(log.systemOnceItHas(part),
                               [&](const auto& line) { return line.find(part) != line.npos; });
  }
  /// A socket at the service's address, without the library.
  Descriptor raw(int (*connectOrBind)(int, const sockaddr*, socklen_t)) const {
    Descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Descriptor folder(open((runtime + "/larkspan").c_str(), O_PATH | O_CLOEXEC));
    sockaddr_un address{AF_UNIX, {}};
    ("/proc/self/fd/" + std::to_string(folder.get()) + '/' + name)
        .copy(address.sun_path, sizeof address.sun_path);
    EXPECT_EQ(connectOrBind(peer.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return peer;
  }
  std::string failure(std::optional<uid_t> user = std::nullopt) {
    const auto connector = user ? serviceConnector(name, *user) : serviceConnector(name);
    const auto outcome = call("pid", Connection::make(connector));
    return outcome.error ? outcome.error->localizedDescription() : "";
  }
};

TEST_F(Services, StartOnceForAllClientsAndAgainAfterAnEnd) {
  serviceFile();
  std::vector<std::shared_ptr<Connection>> connections(20);
  for (auto& connection : connections) connection = Connection::make(serviceConnector(name));
  const auto answers = call("pid", connections);
  const auto pid = static_cast<pid_t>(answers[0].value.integerValue());
  for (const Outcome& outcome : answers) EXPECT_EQ(outcome.value, Value(pid));
  EXPECT_EQ(started(), std::vector{pid});

  EXPECT_EQ(getsid(pid), pid) << "no terminal's signal reaches it";
  const std::filesystem::path process = "/proc/" + std::to_string(pid);
  EXPECT_EQ(std::filesystem::read_symlink(process / "cwd"), "/");
  for (const char* number : {"0", "1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink(process / "fd" / number), "/dev/null");
  const Array peer = call("peer", connections[1]).value.array();
  EXPECT_EQ(peer[0], Value(static_cast<int64_t>(geteuid())));
  EXPECT_EQ(peer[1], Value(getpid()));
  utsname kernel{};
  int major = 0, minor = 0;
  ASSERT_TRUE(uname(&kernel) == 0 && std::sscanf(kernel.release, "%d.%d", &major, &minor) == 2);
  EXPECT_EQ(peer[2], Value(std::pair(major, minor) >= std::pair(6, 5))) << "since when there is a pidfd";

  Collector<bool> interruptions;
  for (const auto& connection : connections)
    connection->setInterruptionHandler([&] { interruptions.push(true); });
  EXPECT_EQ(call("die", connections[0]).error->code(), static_cast<int64_t>(TransportErrorCode::interrupted));
  interruptions.waitFor(connections.size());
  const auto again = call("pid", connections);
  EXPECT_NE(again[0].value, Value(pid));
  for (const Outcome& outcome : again) EXPECT_EQ(outcome.value, again[0].value);
  EXPECT_EQ(started().size(), 2u);
}

TEST_F(Services, CallObjectsThatWerePassedUntilTheyDropThemOrEnd) {
  struct Watcher : ExportedObject {
    explicit Watcher(Collector<Value>& into) : notes(into) {}
    void receive(std::string_view, const std::vector<Value>& arguments, Reply) override {
      notes.push(arguments[0]);
    }
    Collector<Value>& notes;
  };
  serviceFile();
  const auto connection = Connection::make(serviceConnector(name));
  Collector<Value> notes;
  Collector<bool> interruptions;
  connection->setInterruptionHandler([&] { interruptions.push(true); });
  const auto watch = [&] {
    const auto watcher = std::make_shared<Watcher>(notes);
    return std::pair(std::weak_ptr(watcher),
                     call("watch", {connection}, {PassedObject::make(watcher)}).at(0));
  };
  const auto isGone = [](const std::weak_ptr<Watcher>& watcher) {
    for (int i = 0; i < 1000 && !watcher.expired(); ++i) usleep(10'000);
    return watcher.expired();
  };
  const auto [first, pid] = watch();
  EXPECT_EQ(notes.waitFor(1), std::vector{pid.value});
  EXPECT_FALSE(first.expired());
  const auto [second, ignored] = watch();
  EXPECT_EQ(notes.waitFor(2).size(), 2u);
  EXPECT_TRUE(isGone(first)) << "the service has another";
  EXPECT_EQ(call("watch", {connection}, {Value()}).at(0).value, pid.value);
  EXPECT_TRUE(isGone(second)) << "the service has none";

  const auto refused = std::make_shared<Watcher>(notes);
  for (const char* method : {"peer", "watch"}) {
    const Value large = Data::copy(std::string(method[0] == 'w' ? limits::kMaximumFrame : 0, 'x'));
    const Outcome outcome = call(method, {connection}, {PassedObject::make(refused), large}).at(0);
    EXPECT_TRUE(isTransportError(*outcome.error, TransportErrorCode::notSendable));
  }
  const Outcome within = call("watch", {connection}, {Array{Value(PassedObject::make(refused))}}).at(0);
  EXPECT_TRUE(isTransportError(*within.error, TransportErrorCode::notSendable));
  EXPECT_EQ(refused.use_count(), 1);

  const auto [third, same] = watch();
  call("die", connection);
  interruptions.waitFor(1);
  EXPECT_TRUE(isGone(third)) << "the service has gone";
  const auto [fourth, other] = watch();
  EXPECT_NE(other.value, pid.value);
  EXPECT_EQ(notes.waitFor(4).at(3), other.value);
  connection->invalidate();
  EXPECT_TRUE(isGone(fourth));
  EXPECT_TRUE(connection->post("watch", {PassedObject::make(refused)}));
}

TEST_F(Services, SayWhyTheyCannotBeStarted) {
  const std::string none = name + " is not running, and there is no service file to start it";
  EXPECT_EQ(failure(), none);
  const std::string file = serviceFile(R"( "a\nb")");
  EXPECT_EQ(failure(), none + "; " + file + ": a control character in Exec");
  std::optional<DescriptorLimit> limit(0);
  const auto starved = std::get<1>(serviceProgram(name)).localizedDescription();
  limit.reset();
  EXPECT_EQ(starved, name + " cannot be started: " + file + ": Too many open files");
  serviceFile("\nHidden=true");
  EXPECT_EQ(failure(), none + "; " + file + ": is switched off");
  serviceFile("", "/no/such");
  EXPECT_EQ(failure(), name + " could not be started: /no/such: execve: No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(socketPath));
  tree.write(std::string(120, 'r') + "/larkspan/" + name, "no socket");
  EXPECT_EQ(failure(), name + " cannot be reached: Socket operation on non-socket");
  unlink(socketPath.c_str());
  symlink(tree.path("elsewhere").c_str(), socketPath.c_str());
  EXPECT_EQ(failure(), name + " cannot be reached: Socket operation on non-socket") << "no link is followed";
  unlink(socketPath.c_str());

  serviceFile(" exit");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(failure(), name + " went away");
  EXPECT_TRUE(failure().starts_with(name + " ended 5 times right after its start")) << failure();
  EXPECT_EQ(started().size(), 5u);
  for (const char* bad : {"", "../x", ".new", "a/b"})
    EXPECT_THROW(serviceConnector(bad), std::invalid_argument);
}

TEST_F(Services, ListenUnderANameOnceAndLetNoMoreInThanTheyCanServe) {
  const auto ignore = [](const auto&, const auto&) { return nullptr; };
  auto listener = std::get<0>(Listener::make(name, ignore));
  EXPECT_EQ(std::get<Error>(Listener::make(name, ignore)).code(), EADDRINUSE);
  const auto isGreeted = [](const Descriptor& peer, int flags) {
    char byte;
    return recv(peer.get(), &byte, 1, flags) == 1;
  };
  std::vector<Descriptor> peers;
  for (int i = 0; i < limits::kMaximumClients; ++i) peers.push_back(raw(connect));
  for (const Descriptor& peer : peers) EXPECT_TRUE(isGreeted(peer, 0));
  const Descriptor late = raw(connect);
  EXPECT_FALSE(isGreeted(late, MSG_DONTWAIT));
  peers[7].reset();
  EXPECT_TRUE(isGreeted(late, 0));

  listener = nullptr;
  EXPECT_TRUE(isGreeted(peers[8], 0)) << "those who are in stay";
  // The next one ends just as a client comes.
  unlink(socketPath.c_str());
  Descriptor ending = raw(bind);
  listen(ending.get(), 1);
  std::thread end([&] {
    const Descriptor client(accept(ending.get(), nullptr, nullptr));
    ending.reset();
  });
  serviceFile();
  EXPECT_EQ(failure(), "");
  EXPECT_EQ(started().size(), 1u);
  end.join();
}

TEST_F(Services, GiveUpWhoBreaksTheProtocolAndKeepNothingOfHim) {
  Collector<std::weak_ptr<void>> kept;
  const auto listener = Listener::make(name, [&](const auto& connection, const auto&) {
    const auto object = std::make_shared<int>();
    connection->setExported(serviceInterface(), {});
    // A handler of its own is none of the listener's business.
    connection->setInvalidationHandler([] {});
    for (int i = 0; i < 5 && kept.now().empty(); ++i)
      connection->post("note", {Data::copy(std::string(limits::kMaximumFrame / 2, 'x'))});
    kept.push(object);
    return object;
  });
  const std::string hello(encodeHello().view()), open(encodeChannelFrame(FrameType::open, 1).view());
  const std::string pass(
      "\x00\x00\x00\x1e\x85\x03\x01\x01\x65watch\x81\xd8\x1b\x82\x65Proxy\xa1\x67"
      "channel",
      33);
  std::string flood;
  for (uint32_t i = 1; i <= limits::kMaximumChannels + 1; ++i)
    flood += encodeChannelFrame(FrameType::open, i).view();
  const std::pair<std::string, const char*> cases[] = {
      {open, "does not read what is sent to it"},
      {open + pass + '\x01', "An object on a channel that cannot be opened"},
      {open + pass + '\x00', "An object that cannot be made"},
      {flood, "Too many channels"}};
  for (const auto& [sent, fault] : cases) {
    const Descriptor peer = raw(connect);
    const std::string all = hello + sent;
    EXPECT_EQ(send(peer.get(), all.data(), all.size(), MSG_NOSIGNAL), static_cast<ssize_t>(all.size()));
    EXPECT_TRUE(isLogged(fault)) << log.system().back();
    std::string answer(1000, '\0');
    while (recv(peer.get(), answer.data(), answer.size(), 0) > 0) {
    }
  }
  const auto objects = kept.waitFor(3 + limits::kMaximumChannels);
  EXPECT_EQ(objects.size(), 3 + limits::kMaximumChannels);
  const auto isHeld = [](const auto& object) { return !object.expired(); };
  for (int i = 0; i < 1000 && std::ranges::any_of(objects, isHeld); ++i) usleep(10'000);
  EXPECT_TRUE(std::ranges::none_of(objects, isHeld));
}

TEST_F(Services, AreGivenUpWhileTheyHangAndStartNoMoreThanFiveTimesAtOnce) {
  std::get<0>(Listener::make(name, nullptr)).reset();
  unlink(socketPath.c_str());
  Descriptor hung = raw(bind);
  listen(hung.get(), 20);
  std::vector<std::shared_ptr<Connection>> connections(10);
  Collector<bool> ends;
  for (auto& connection : connections) {
    connection = Connection::make(serviceConnector(name));
    connection->connect([&](const auto& error) { ends.push(error.has_value()); });
    // It is on its way, or waits to be greeted.
    EXPECT_TRUE(Descriptor(accept(hung.get(), nullptr, nullptr)));
  }
  for (const auto& connection : connections) connection->invalidate();
  EXPECT_EQ(ends.now(), std::vector<bool>(10, true)) << "and no thread or descriptor is left";
  hung.reset();
  connections.resize(50);
  for (auto& connection : connections) connection = Connection::make(serviceConnector(name));
  serviceFile(" exit");
  call("pid", connections);
  // Several may have met one that was about to end.
  for (int i = 0; i < 5; ++i) EXPECT_NE(failure(), "");
  EXPECT_EQ(started().size(), 5u);
}

TEST_F(Services, OfAnotherUserAreReachedByRootAndNeverStarted) {
  if (geteuid() != 0) GTEST_SKIP() << "Only root reaches other users";
  const std::string folder = "/tmp/larkspan-" + std::to_string(kOther);
  const auto own = [](const std::string& path) { EXPECT_EQ(chown(path.c_str(), kOther, kOther), 0); };
  std::filesystem::remove_all(folder);
  EXPECT_EQ(failure(kOther), name + " is not running for user 4321");
  symlink(tree.root.c_str(), folder.c_str());
  EXPECT_EQ(failure(kOther), name + " cannot be reached: " + folder + ": Not a directory");
  unlink(folder.c_str());
  mkdir(folder.c_str(), 0700);
  EXPECT_EQ(failure(kOther), name + " cannot be reached: " + folder + ": belongs to user 0");
  own(folder);
  chmod(folder.c_str(), 0750);
  EXPECT_EQ(failure(kOther), name + " cannot be reached: " + folder + ": is open to others");
  chmod(folder.c_str(), 0700);

  chmod(tree.root.c_str(), 0777);
  tree.write("starts", "");
  ChildOptions options;
  options.arguments = {kProgram, name, starts, "as", std::to_string(kOther)};
  options.environment = environmentWith({{"XDG_RUNTIME_DIR", std::nullopt}});
  Collector<ExitStatus> ends;
  const auto child = std::get<0>(Child::start(options, [&](ExitStatus how) { ends.push(how); }));
  for (int i = 0; i < 1000 && !std::filesystem::exists(folder + "/larkspan/" + name); ++i) usleep(10'000);
  EXPECT_EQ(failure(kOther), "");
  child->kill(SIGKILL);
  ends.waitFor(1);
  serviceFile();
  EXPECT_EQ(failure(kOther), name + " is not running for user 4321");
  std::filesystem::remove_all(folder);
  tree.write("starts", "");

  // And another user is sent away, should he find the socket.
  const auto listener = Listener::make(name, [](const auto&, const auto&) { return nullptr; });
  const std::string found = tree.path("s");
  rename(socketPath.c_str(), found.c_str());
  chmod(found.c_str(), 0777);
  options.arguments = {
      "perl",
      "-MSocket",
      "-MPOSIX",
      "-e",
      "setuid(4321); socket(S, PF_UNIX, SOCK_STREAM, 0); connect(S, sockaddr_un($ARGV[0])) or "
      "exit 1; exit(sysread(S, $_, 1) // 0)",
      found};
  const auto knocking = Child::start(options, [&](ExitStatus how) { ends.push(how); });
  EXPECT_EQ(ends.waitFor(2).at(1).description(), "exit code 0");
  EXPECT_TRUE(isLogged(" of user 4321"));
}

}  // namespace
}  // namespace larkspan::tests
