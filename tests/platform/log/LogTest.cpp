#include "larkspan/platform/log/Console.h"
#include "larkspan/platform/log/JournalSink.h"
#include "larkspan/platform/log/StreamSink.h"
#include "larkspan/platform/log/SystemLog.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

/// A journal's end of the socket, in a folder of its own.
class FakeJournal {
 public:
  FakeJournal() {
    EXPECT_NE(mkdtemp(folder_), nullptr);
    path = std::string(folder_) + "/socket";
    listen();
  }
  ~FakeJournal() {
    close(socket_);
    unlink(path.c_str());
    rmdir(folder_);
  }
  void listen() {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  void hangUp() {
    close(socket_);
    unlink(path.c_str());
  }
  /// The next record: its bytes, or those of the descriptor that came instead, which must be sealed.
  std::string receive() {
    std::string bytes(1 << 18, '\0');
    iovec piece{bytes.data(), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{nullptr, 0, &piece, 1, control, sizeof control, 0};
    const ssize_t size = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
    if (size < 0) return "nothing";
    bytes.resize(static_cast<std::size_t>(size));
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
      int memory;
      std::memcpy(&memory, CMSG_DATA(header), sizeof memory);
      EXPECT_EQ(fcntl(memory, F_GET_SEALS), F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
      struct stat status {};
      fstat(memory, &status);
      bytes.resize(static_cast<std::size_t>(status.st_size));
      EXPECT_EQ(pread(memory, bytes.data(), bytes.size(), 0), status.st_size);
      close(memory);
    }
    return bytes;
  }

  std::string path;

 private:
  char folder_[32] = "/tmp/larkspan-journal-XXXXXX";
  int socket_ = -1;
};

LogRecord record(std::string_view message, LogLevel level = LogLevel::standard) {
  return {LogChannel::system, level, "corvane.storage", "log", message};
}

std::string expected(const std::string& priority, const std::string& rest) {
  return "PRIORITY=" + priority +
         "\nSYSLOG_IDENTIFIER=larkspan_tests\nSUBSYSTEM=corvane.storage\nCATEGORY=log\n" + rest;
}

TEST(JournalSink, WritesTheNativeProtocol) {
  FakeJournal journal;
  JournalSink sink(journal.path);
  sink.write(record("100% = full"));
  EXPECT_EQ(journal.receive(), expected("5", "MESSAGE=100% = full\n"));
  sink.write(record("a\nPRIORITY=0", LogLevel::fault));
  EXPECT_EQ(journal.receive(),
            expected("2", std::string("MESSAGE\n\x0c\0\0\0\0\0\0\0", 16) + "a\nPRIORITY=0\n"));
  const std::string large(1 << 20, 'x');
  sink.write(record(large));
  EXPECT_TRUE(journal.receive() == expected("5", "MESSAGE=" + large + "\n"));
}

TEST(JournalSink, CountsWhatItDropsAndSaysSoInTheNextRecord) {
  FakeJournal journal;
  JournalSink sink(journal.path);
  journal.hangUp();
  sink.write(record("lost"));
  journal.listen();
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
  const std::string prefix = "larkspan_tests[" + std::to_string(getpid()) + "] ";
  std::string lines = text;
  for (int i = 0; i < 2; ++i) {
    const std::size_t at = lines.find(prefix);
    ASSERT_NE(at, lines.npos) << text;
    int parts[7];
    char end = 0;
    const std::size_t start = i == 0 ? 0 : lines.find('\n') + 1;
    EXPECT_EQ(std::sscanf(lines.c_str() + start, "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ%c", &parts[0], &parts[1],
                          &parts[2], &parts[3], &parts[4], &parts[5], &parts[6], &end),
              8)
        << text;
    lines.erase(start, at + prefix.size() - start);
  }
  EXPECT_EQ(lines, "a\\nb\\t\\x1b[2J\\x7f\\x9b \xC3\xA9\ncorvane.storage:log fault: full\n");
}

TEST(SystemLog, FollowsTheSettingOfTheEnvironment) {
  EXPECT_FALSE(makeSystemLogSink("none")->isEnabled(LogLevel::fault));
  EXPECT_TRUE(makeSystemLogSink("")->isEnabled(LogLevel::standard));

  char path[] = "/tmp/larkspan-log-XXXXXX";
  close(mkstemp(path));
  for (const char* message : {"one", "two"}) {
    makeSystemLogSink(std::string("file:") + path)->write(record(message));
  }
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  char text[512] = {};
  EXPECT_GT(read(file, text, sizeof text - 1), 0);
  close(file);
  unlink(path);
  EXPECT_NE(std::strstr(text, "default: one\n"), nullptr) << text;
  EXPECT_NE(std::strstr(text, "default: two\n"), nullptr) << "appended, not replaced: " << text;

  testing::internal::CaptureStderr();
  makeSystemLogSink("file:/nowhere/log");
  makeSystemLogSink("syslog");
  makeSystemLogSink("stderr")->write(record("three"));
  const std::string complaints = testing::internal::GetCapturedStderr();
  for (const char* part :
       {"LARKSPAN_LOG: /nowhere/log: No such file or directory\n", "not syslog\n", "default: three\n"}) {
    EXPECT_NE(complaints.find(part), complaints.npos) << complaints;
  }
}

TEST(SystemLog, HandsTheExactTextOfBothChannelsToAnInstalledSink) {
  using Texts = std::vector<std::string>;
  const SystemLog log("corvane.storage", "log");
  tests::CapturedLog outer;
  {
    tests::CapturedLog inner;
    log.write(LogLevel::fault, "a\nb");
    consoleLog("c\x1b");
    ASSERT_EQ(inner.lines().size(), 2u);
    EXPECT_EQ(inner.lines()[0].subsystem + "/" + inner.lines()[0].category, "corvane.storage/log");
    EXPECT_EQ(inner.lines()[0].level, LogLevel::fault);
    EXPECT_EQ(inner.system(), Texts{"a\nb"});
    EXPECT_EQ(inner.console(), Texts{"c\x1b"});
  }
  {
    // Sinks installed while another thread logs: each message reaches exactly one of them.
    const std::size_t before = outer.lines().size();
    std::vector<std::unique_ptr<tests::CapturedLog>> inner;
    std::thread other([&] {
      for (int i = 0; i < 1000; ++i) log.write(LogLevel::standard, "x");
    });
    for (int i = 0; i < 100; ++i) inner.push_back(std::make_unique<tests::CapturedLog>());
    other.join();
    std::size_t count = outer.lines().size() - before;
    for (; !inner.empty(); inner.pop_back()) count += inner.back()->lines().size();
    EXPECT_EQ(count, 1000u);
  }
  const std::size_t before = outer.lines().size();
  consoleLog("d");
  EXPECT_EQ(outer.lines().size(), before + 1);
}

}  // namespace
}  // namespace larkspan::platform
