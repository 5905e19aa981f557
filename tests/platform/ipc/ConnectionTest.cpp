#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/appext/ExtensionItem.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/ipc/Serving.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Collector.h"

#include <gtest/gtest.h>

#include <thread>

#include <fcntl.h>
#include <sys/socket.h>

namespace larkspan::tests {
namespace {

using namespace platform;

const std::string kHello(
    "\x00\x00\x00\x2C\x82\x00\xA3\x68protocol\x68larkspan\x67version\x01\x6C"
    "capabilities\x80",
    48);

/// A frame of these bytes.
std::string framed(const std::string& item) {
  std::string frame;
  for (int shift = 24; shift >= 0; shift -= 8) frame += static_cast<char>(item.size() >> shift);
  return frame + item;
}
std::string bytes(std::initializer_list<int> list) { return {list.begin(), list.end()}; }

std::shared_ptr<const Interface> echoInterface() {
  const ClassSet any = ClassSet::allValues().with<ExtensionItem>();
  return std::make_shared<Interface>(
      "Echo", std::vector<Interface::Method>{
                  {"echo", {any}, std::vector<ClassSet>{any}},
                  {"number", {{ValueClass::number}}, std::vector<ClassSet>{{ValueClass::number}}},
                  {"list", {any}, std::vector<ClassSet>{any}, true},
                  {"note", {any}, std::nullopt}});
}

TEST(Interface, TellsTheClassesOfWhatItHasAndNothingElse) {
  Interface interface = *echoInterface();
  interface.setClasses({ValueClass::url}, "number", 0, true);
  EXPECT_TRUE(interface.classes("number", 0, true).admits(ValueClass::url));
  EXPECT_FALSE(interface.classes("number", 0, false).admits(ValueClass::url));
  EXPECT_THROW(interface.classes("none", 0, false), std::out_of_range);
  EXPECT_THROW(interface.classes("number", 1, false), std::out_of_range);
  EXPECT_THROW(interface.classes("note", 0, true), std::out_of_range) << "it has no reply";
}

/// A connection whose peer is this test, which writes and reads raw bytes.
struct RawPeer : testing::Test {
  struct Outcome {
    std::vector<Value> values;
    std::optional<Error> error;
    int64_t code() const { return error ? error->code() : 0; }
  };
  CapturedLog log;
  Collector<Outcome> outcomes;
  // The handlers hold what they write to: they may run once more when a test has all that it waits for.
  const std::shared_ptr<Collector<std::string>> heard = std::make_shared<Collector<std::string>>();
  Collector<std::string>& events = *heard;
  Collector<int> closings;
  Descriptor peer;
  std::shared_ptr<Transport> transport;
  int connects = 0;
  std::shared_ptr<Connection> connection =
      Connection::make([this](Connection::Connected connected) -> Connection::Abandon {
        ++connects;
        int sockets[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
        peer = Descriptor(sockets[1]);
        if (connects % 2 == 0) fcntl(sockets[0], F_SETFL, O_NONBLOCK);
        Transport::Handlers handlers;
        handlers.onClose = [this](const Error&) { closings.push(connects); };
        transport = Transport::make(Descriptor(sockets[0]), "peer", std::move(handlers));
        connected(transport, std::nullopt);
        return nullptr;
      });

  RawPeer() {
    connection->setRemoteInterface(echoInterface());
    connection->setInterruptionHandler([heard = heard] { heard->push("interrupted"); });
    connection->setInvalidationHandler([heard = heard] { heard->push("invalidated"); });
  }
  ~RawPeer() override {
    // Without a channel the close is the last thing that a transport says; then nothing refers to this test.
    connection->invalidate();
    if (transport) transport->close(Error("test", 0));
    closings.waitFor(static_cast<std::size_t>(connects));
  }
  void call(std::string_view method, const Value& argument) {
    connection->call(method, {argument}, [this](const auto& values, const auto& error) {
      outcomes.push({values, error});
    });
  }
  void write(const std::string& data) {
    ASSERT_EQ(send(peer.get(), data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
  }
  /// Reads whole frames up to one of that type and returns its item.
  std::string readFrame(FrameType type) {
    for (;;) {
      std::string item(4, '\0');
      if (recv(peer.get(), item.data(), 4, MSG_WAITALL) != 4) return {};
      const auto length = static_cast<uint32_t>(detail::loadBigEndian(item.data(), 4));
      item.resize(length);
      if (recv(peer.get(), item.data(), length, MSG_WAITALL) != length) return {};
      if (item[1] == static_cast<char>(type)) return item;
    }
  }
  /// A reply to the call with that item.
  std::string answer(const std::string& item, const std::string& value) {
    return framed(bytes({0x84, 5}) + address(item) + bytes({0x81}) + value);
  }
  /// The bytes of the call's envelope after the type: channel and number, one byte each in these tests.
  std::string address(const std::string& item) {
    const auto frame = std::get<Frame>(Frame::parse(Slice::copy(item)));
    ByteBuffer out;
    CborWriter writer(out);
    writer.integer(frame.channel);
    writer.integer(frame.id);
    return std::string(out.view());
  }
};

TEST_F(RawPeer, TakesFramesInAnyPieces) {
  call("echo", "x");
  for (const char byte : kHello + answer(readFrame(FrameType::call), bytes({0x63, 'a', 'b', 'c'})))
    write({byte});
  EXPECT_EQ(outcomes.waitFor(1).at(0).values, std::vector<Value>{"abc"});

  // Around the size of the buffer that is read into, and of the blocks that large frames grow in.
  const std::size_t sizes[] = {0, 65'520, 65'521, 65'530, 65'536, 200'000, 10, 196'000, 5'000'000, 20};
  std::size_t done = 1;
  for (const std::size_t piece : {999, 65'535, 65'536, 70'001, 10'000'000}) {
    std::string stream;
    std::vector<Value> expected;
    for (const std::size_t size : sizes) {
      std::string content(size, static_cast<char>(piece));
      for (std::size_t i = 0; i < size; i += 251) content[i] = static_cast<char>(i / 251);
      expected.push_back(Data::copy(content));
      call("echo", 1);
      stream += answer(readFrame(FrameType::call), "\x5A" + framed(content));
    }
    for (std::size_t at = 0; at < stream.size(); at += piece) write(stream.substr(at, piece));
    const auto all = outcomes.waitFor(done + expected.size());
    for (const Value& value : expected) EXPECT_EQ(all[done++].values, std::vector<Value>{value}) << piece;
  }
}

TEST_F(RawPeer, EndsInOrderWhoeverEndsIt) {
  // The peer's process has ended, but another holds its socket: what it sent still counts.
  call("echo", 1);
  const std::string first = readFrame(FrameType::call);
  call("echo", 2);
  readFrame(FrameType::call);
  write(kHello + answer(first, "\x07"));
  transport->peerEnded(Error("test", 7));
  auto all = outcomes.waitFor(2);
  EXPECT_EQ(all.at(0).values, std::vector<Value>{7});
  EXPECT_EQ(all.at(1).code(), 7);
  EXPECT_EQ(closings.waitFor(1).size(), 1u);

  // A handler ends it while another answer has come already.
  connection->call("echo", {1}, [this](const auto& values, const auto& error) {
    outcomes.push({values, error});
    transport->close(Error("test", 8));
  });
  call("echo", 2);
  const std::string third = readFrame(FrameType::call), fourth = readFrame(FrameType::call);
  write(kHello + answer(third, "\x01") + answer(fourth, "\x02"));
  all = outcomes.waitFor(4);
  EXPECT_EQ(all.at(2).code(), 0);
  EXPECT_EQ(all.at(3).code(), 8);
  EXPECT_EQ(closings.waitFor(2).size(), 2u);

  // A part of a reply that comes whole.
  call("echo", 1);
  write(kHello + framed(bytes({0x84, 7}) + address(readFrame(FrameType::call)) + bytes({0x81, 0x81, 1})));
  EXPECT_EQ(outcomes.waitFor(5).at(4).code(), static_cast<int64_t>(TransportErrorCode::violation));

  // Nobody holds it any more; its thread and its descriptor go too.
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  peer.reset(sockets[1]);
  Transport::make(Descriptor(sockets[0]), "peer", {}).reset();
  EXPECT_EQ(readFrame(FrameType::call), "") << "a hello and nothing more";
}

TEST_F(RawPeer, IsSentTablesAndPartsOnceItHasSaidThatItTakesThem) {
  struct Listing : ExportedObject {
    void receive(std::string_view, const std::vector<Value>&, Reply reply) override { reply({items}); }
    Array items;
  };
  const auto listing = std::make_shared<Listing>();
  const auto item = std::make_shared<ExtensionItem>();
  item->setUserInfo({{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}});
  listing->items = std::vector<Value>(1100, item);
  connection->setExported(echoInterface(), listing);
  const auto isTable = [](const std::string& frame) {
    EXPECT_NE(frame.find("ExtensionItem"), frame.npos);
    return frame.find("Table") != frame.npos;
  };
  for (const bool readsTables : {false, true}) {
    call("echo", 1);
    const std::string first = readFrame(FrameType::call);
    write((readsTables ? std::string(encodeHello().view()) : kHello) + answer(first, "\x01"));
    outcomes.waitFor(readsTables ? 2 : 1);
    connection->call("echo", {listing->items}, [](const auto&, const auto&) {});
    EXPECT_EQ(isTable(readFrame(FrameType::call)), readsTables);
    write(framed(bytes({0x85, 3}) + address(first) + "dlist\x81\x01"));
    const std::string answered = readFrame(readsTables ? FrameType::part : FrameType::reply);
    EXPECT_EQ(isTable(answered), readsTables);
    EXPECT_TRUE(readsTables || answered.size() > 1100 * sizeof "ExtensionItem") << "all of it";
    transport->close(Error("test", 0));
    events.waitFor(readsTables ? 2 : 1);
  }
}

TEST_F(RawPeer, InterruptsAPeerThatDoesNotReadAndFailsWhatIsTooLargeAlone) {
  call("echo", Data::copy(std::string(limits::kMaximumFrame, 'x')));
  EXPECT_EQ(outcomes.waitFor(1).at(0).code(), static_cast<int64_t>(TransportErrorCode::notSendable));
  EXPECT_EQ(connects, 0);
  const Value large = Data::copy(std::string(limits::kMaximumFrame / 2, 'x'));
  for (int i = 0; i < 5; ++i) call("echo", large);
  for (const Outcome& outcome : outcomes.waitFor(6)) EXPECT_TRUE(outcome.error);
  EXPECT_EQ(outcomes.now().back().code(), static_cast<int64_t>(TransportErrorCode::notReading));
}

TEST_F(RawPeer, InvalidationFailsCallsAtOnceAndForGood) {
  call("echo", 1);
  ASSERT_FALSE(readFrame(FrameType::call).empty());
  connection->invalidate();
  EXPECT_EQ(outcomes.now().at(0).code(), static_cast<int64_t>(TransportErrorCode::invalidated));
  EXPECT_FALSE(readFrame(FrameType::close).empty()) << "the peer is told";
  call("echo", 2);
  EXPECT_EQ(outcomes.now().at(1).code(), static_cast<int64_t>(TransportErrorCode::invalidated));
  EXPECT_TRUE(connection->post("note", {1}));
  connection->invalidate();
  EXPECT_EQ(events.now(), std::vector<std::string>{"invalidated"});
}

/// Two connections over a real socket, the far one answering.
struct Answering : testing::Test, ExportedObject {
  std::shared_ptr<Transport> near;
  std::shared_ptr<Connection> connection;
  Collector<std::optional<Error>> outcomes;
  Collector<Value> notes;
  Collector<int> closed;
  std::function<void(Reply)> answer;

  void receive(std::string_view method, const std::vector<Value>& arguments, Reply reply) override {
    if (method == "note") return notes.push(arguments[0]);
    answer(std::move(reply));
  }
  Answering() {
    int sockets[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    const auto accept = [this](const auto& accepted) {
      accepted->setExported(echoInterface(), kept);
      return nullptr;
    };
    serve(Descriptor(sockets[1]), "near", accept, [this] { closed.push(1); });
    Transport::Handlers ours;
    ours.onClose = [this](const Error&) { closed.push(2); };
    near = Transport::make(Descriptor(sockets[0]), "far", std::move(ours));
    connection = Connection::make([this](Connection::Connected connected) -> Connection::Abandon {
      connected(near, std::nullopt);
      return nullptr;
    });
    connection->setRemoteInterface(echoInterface());
  }
  ~Answering() override {
    near->close(Error("test", 0));
    closed.waitFor(2);
  }
  int64_t ask(std::string_view method, const Value& argument = 1) {
    const std::size_t before = outcomes.now().size();
    connection->call(method, {argument}, [this](const auto&, const auto& error) { outcomes.push(error); });
    const auto error = outcomes.waitFor(before + 1).at(before);
    return error ? error->code() : 0;
  }
  std::shared_ptr<ExportedObject> kept{this, [](auto*) {}};
};

TEST_F(Answering, ALongListComesInPartsBeforeItsRest) {
  constexpr std::size_t kCount = 5000;
  Items items;
  for (std::size_t i = 0; i < kCount; ++i) items.push_back(*MessageItem::initWithLKSName(std::to_string(i)));
  Value list = arrayFromItems(items);
  answer = [&](const Reply& reply) { reply({list}); };
  Items came;
  int parts = 0;
  const auto askInParts = [&] {
    const std::size_t before = outcomes.now().size();
    connection->call(
        "list", {1},
        [&](const auto& values, const auto& error) {
          if (!error) appendItems(came, values.at(0).array());
          outcomes.push(error);
        },
        [&](const Array& members) {
          ++parts;
          appendItems(came, members);
        });
    return outcomes.waitFor(before + 1).at(before);
  };
  EXPECT_EQ(ask("echo"), 0) << "other methods reply whole";
  EXPECT_FALSE(askInParts());
  EXPECT_GT(parts, 1);
  ASSERT_EQ(came.size(), kCount);
  for (std::size_t i = 0; i < kCount; ++i) EXPECT_EQ(came[i].lks_name(), std::to_string(i));

  // The limits of one frame hold for all of the reply, and the sender sees to it.
  std::vector<Value> much(kCount, Data::copy(std::string(limits::kMaximumFrame / kCount, 'x')));
  list = Array(much);
  EXPECT_EQ(askInParts()->code(), static_cast<int64_t>(TransportErrorCode::notSendable));
  much.resize(kCount - 100);
  list = Array(much);
  EXPECT_FALSE(askInParts());
  EXPECT_TRUE(closed.now().empty());
  connection->call(
      "list", {1}, [&](const auto&, const auto& error) { outcomes.push(error); },
      [&](const Array&) { connection->invalidate(); });
  EXPECT_EQ(outcomes.waitFor(5).at(4)->code(), static_cast<int64_t>(TransportErrorCode::invalidated));
}

TEST_F(Answering, WhatCallsPostMayWaitForWhatIsReadAfterThem) {
  const std::shared_ptr<DispatchQueue> queues[] = {DispatchQueue::makeSerial("even"),
                                                   DispatchQueue::makeSerial("odd")};
  std::size_t expected = 0, calls = 0;
  Collector<int> started;
  answer = [&](const Reply& reply) {
    const auto& queue = queues[++calls % 2];
    if (calls % 3 == 0) {
      queue->async([] {});
      queue->sync([] {});
    }
    queue->async([&, reply] {
      started.push(1);
      EXPECT_EQ(notes.waitFor(expected).size(), expected);
      reply({Value(1)});
    });
  };
  // Enough for the reading threads to leave the work to others, and to take it up again.
  while (expected < 80) {
    ++expected;
    for (const std::size_t call : {2 * expected - 1, 2 * expected}) {
      connection->call("echo", {1}, [this](const auto&, const auto& error) { outcomes.push(error); });
      started.waitFor(call);
    }
    EXPECT_FALSE(connection->post("note", {1}));
    EXPECT_FALSE(outcomes.waitFor(2 * expected).back());
  }
}

TEST_F(Answering, EveryCallEndsHoweverTheAnswerFails) {
  CapturedLog log;
  const auto code = [](TransportErrorCode value) { return static_cast<int64_t>(value); };
  answer = [](const Reply& reply) { reply({Value(1)}); };
  EXPECT_EQ(ask("echo"), 0);
  answer = [](const Reply&) {};
  EXPECT_EQ(ask("echo"), code(TransportErrorCode::notAnswered));
  answer = [](const Reply& reply) { std::thread([reply] { reply.fail(Error("test", 12)); }).join(); };
  EXPECT_EQ(ask("echo"), 12);
  answer = [](const Reply& reply) { reply({Data::copy(std::string(limits::kMaximumFrame, 'x'))}); };
  EXPECT_EQ(outcomes.now().size(), 3u);
  EXPECT_NE(ask("echo"), 0) << "a reply too large to send fails that call";
  answer = [](const Reply& reply) {
    reply({Value(1)});
    reply({Value(2)});
  };
  EXPECT_EQ(ask("echo"), 0);
  EXPECT_EQ(ask("no such method"), code(TransportErrorCode::unknownMethod));
  EXPECT_EQ(log.system().size(), 1u) << "the second answer is said and dropped";
  EXPECT_EQ(ask("note"), code(TransportErrorCode::unknownMethod)) << "no reply to be had";
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(connection->post("note", {i}));
  const auto all = notes.waitFor(100);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(all.at(static_cast<std::size_t>(i)), Value(i));
  EXPECT_TRUE(closed.now().empty()) << "none of this ends the connection";

  kept.reset();
  EXPECT_EQ(ask("echo"), code(TransportErrorCode::notAnswered)) << "the exported object is gone";
  EXPECT_EQ(ask("number", "no number"), code(TransportErrorCode::violation));
  EXPECT_EQ(closed.waitFor(2).size(), 2u) << "a forbidden argument ends the connection";
}

}  // namespace
}  // namespace larkspan::tests
