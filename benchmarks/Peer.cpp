#include "benchmarks/Peer.h"

#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace larkspan::benchmarks {

PeerProcess::PeerProcess(const char* role) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    std::perror("socketpair");
    std::exit(1);
  }
  process_ = fork();
  if (process_ == 0) {
    if (ends[1] == kPeerSocket || dup2(ends[1], kPeerSocket) == kPeerSocket)
      execl("/proc/self/exe", "peer", "--peer", role, nullptr);
    _exit(127);
  }
  close(ends[1]);
  socket_ = ends[0];
}

PeerProcess::~PeerProcess() {
  close(socket_);
  waitpid(process_, nullptr, 0);
}

}  // namespace larkspan::benchmarks
