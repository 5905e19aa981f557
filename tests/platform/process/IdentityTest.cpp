#include "larkspan/platform/process/Identity.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/syscall.h>

namespace larkspan::platform {
namespace {

TEST(Identity, IsThatOfTheProcess) {
  EXPECT_EQ(Identity::current().realUser, getuid());
  EXPECT_EQ(Identity::current().effectiveUser, geteuid());
  EXPECT_EQ(homeFolderOf(0), "/root");
  EXPECT_EQ(homeFolderOf(4'000'000'000), "");
  EXPECT_EQ(Identity::current().homeFolder, homeFolderOf(getuid()));
}

TEST(Identity, OfAPeerComesFromTheKernel) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Descriptor first(ends[0]), second(ends[1]);
  const auto peer = peerCredentials(first.get());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->process, getpid());
  EXPECT_EQ(peer->user, geteuid());
  EXPECT_EQ(peer->group, getegid());
  if (peer->processHandle) {
    EXPECT_EQ(syscall(SYS_pidfd_send_signal, peer->processHandle.get(), 0, nullptr, 0), 0);
  }

  const Descriptor alone(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(peerCredentials(alone.get()));
  EXPECT_EQ(errno, ENOTCONN);
}

}  // namespace
}  // namespace larkspan::platform
