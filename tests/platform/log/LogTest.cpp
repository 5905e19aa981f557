#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/log/Console.h"
#include "larkspan/platform/log/JournalSink.h"
#include "larkspan/platform/log/StreamSink.h"
#include "larkspan/platform/log/SystemLog.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

#include <cstring>

#include <fnmatch.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace larkspan::platform {
namespace {

/// A journal's end of the socket, in a folder of its own.
class FakeJournal {
 public:
  FakeJournal() {
    socket_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, path.size());
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  /// The next record: its bytes, or those of the descriptor that came instead, which must be sealed.
  std::string receive() {
    std::string bytes((1 << 20) + 256, '\0');
    iovec piece{bytes.data(), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{nullptr, 0, &piece, 1, control, sizeof control, 0};
    ssize_t size = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
    if (size < 0) return "nothing";
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
      int memory;
      std::memcpy(&memory, CMSG_DATA(header), sizeof memory);
      EXPECT_EQ(fcntl(memory, F_GET_SEALS), F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
      size = pread(memory, bytes.data(), bytes.size(), 0);
      close(memory);
    }
    return bytes.substr(0, static_cast<std::size_t>(size));
  }

  const TestTree tree;
  const std::string path = tree / "socket";

 private:
  Descriptor socket_;
};

LogRecord record(std::string_view message, LogLevel level = LogLevel::standard) {
  return {LogChannel::system, level, "corvane.storage", "log", message};
}

std::string expected(const std::string& priority, const std::string& rest) {
  return "PRIORITY=" + priority +
         "\nSYSLOG_IDENTIFIER=larkspan_tests\nSUBSYSTEM=corvane.storage\nCATEGORY=log\n" + rest;
}

TEST(JournalSink, WritesTheNativeProtocolAndSaysInTheNextRecordHowManyItDropped) {
  FakeJournal journal;
  std::optional<DescriptorLimit> none(0);
  JournalSink sink(journal.path);
  sink.write(record("lost for want of a descriptor"));
  none.reset();
  sink.write(record("100% = full"));
  EXPECT_EQ(journal.receive(), expected("5", "MESSAGE=100% = full\nLARKSPAN_DROPPED=1\n"));
  sink.write(record("a\nPRIORITY=0", LogLevel::fault));
  EXPECT_EQ(journal.receive(),
            expected("2", std::string("MESSAGE\n\x0c\0\0\0\0\0\0\0", 16) + "a\nPRIORITY=0\n"));
  const std::string large(1 << 20, 'x');
  sink.write(record(large));
  EXPECT_TRUE(journal.receive() == expected("5", "MESSAGE=" + large + "\n"));

  int taken = 0;  // fills the queue of the socket; a blocking sink would hang here
  for (int i = 0; i < 2000; ++i) sink.write(record("x"));
  while (journal.receive() != "nothing") ++taken;
  ASSERT_GT(taken, 0);
  ASSERT_LT(taken, 2000);
  sink.write(record("y"));
  EXPECT_EQ(journal.receive(),
            expected("5", "MESSAGE=y\nLARKSPAN_DROPPED=" + std::to_string(2000 - taken) + "\n"));
  sink.write(record("z"));
  EXPECT_EQ(journal.receive(), expected("5", "MESSAGE=z\n"));
}

TEST(StreamSink, WritesOneLineThatNobodyElseCanForge) {
  const int file = memfd_create("log", MFD_CLOEXEC);
  StreamSink sink(file);
  sink.write({LogChannel::console, LogLevel::standard, {}, {}, "a\nb\t\x1b[2J\x7f\xC2\x9B \xC3\xA9"});
  sink.write(record("full", LogLevel::fault));
  char text[512] = {};
  ASSERT_GT(pread(file, text, sizeof text - 1, 0), 0);
  close(file);
  const std::string prefix = "20*-*-*T*:*:*.*Z larkspan_tests[[]" + std::to_string(getpid()) + "] ";
  const std::string lines =
      prefix + "a\\nb\\t\\x1b[[]2J\\x7f\\x9b \xC3\xA9\n" + prefix + "corvane.storage:log fault: full\n";
  EXPECT_EQ(fnmatch(lines.c_str(), text, FNM_NOESCAPE), 0) << text;
}

TEST(StreamSink, DropsWhatAStalledPipeHasNoRoomForAndSaysSoOnce) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);  // Where write(2) would block.
  const Descriptor reader(ends[0]), writer(ends[1]);
  StreamSink sink(writer.get());
  const auto read = [&] {
    std::string text(1 << 20, '\0');
    text.resize(static_cast<std::size_t>(::read(reader.get(), text.data(), text.size())));
    return text;
  };
  for (int i = 0; i < 2000; ++i) sink.write(record("short"));
  const std::string full = read();
  const auto taken = std::count(full.begin(), full.end(), '\n');
  ASSERT_TRUE(taken > 100 && taken < 2000) << taken;
  for (const char* message : {"next", "last"}) sink.write(record(message));
  const std::string after = read();
  EXPECT_EQ(std::count(after.begin(), after.end(), '\n'), 3);
  const auto told = after.find(" " + std::to_string(2000 - taken) + " messages were dropped\n");
  EXPECT_LT(told, after.find("default: next\n")) << after;

  // Longer than the pipe: its beginning comes, and then a new line.
  sink.write(record(std::string(1 << 17, 'x')));
  const std::string cut = read();
  EXPECT_TRUE(cut.size() > 4096 && cut.back() == 'x');
  sink.write(record("after"));
  EXPECT_TRUE(read().starts_with("\n20"));
}

TEST(SystemLog, FollowsTheSettingOfTheEnvironment) {
  EXPECT_FALSE(makeSystemLogSink("none")->isEnabled(LogLevel::fault));
  EXPECT_TRUE(makeSystemLogSink("")->isEnabled(LogLevel::standard));

  const TestTree tree;
  for (const char* message : {"one", "two"})
    makeSystemLogSink("file:" + tree / "log")->write(record(message));
  EXPECT_EQ(shell("grep -o 'default: .*' " + tree / "log"), "default: one\ndefault: two\n");

  testing::internal::CaptureStderr();
  for (const char* bad : {"file:/nowhere/log", "syslog"}) makeSystemLogSink(bad);
  makeSystemLogSink("stderr")->write(record("three"));
  const std::string said = testing::internal::GetCapturedStderr();
  for (const char* part : {"/nowhere/log: No such file or directory\n", "not syslog\n", "default: three\n"})
    EXPECT_NE(said.find(part), said.npos) << said;
}

}  // namespace
}  // namespace larkspan::platform
