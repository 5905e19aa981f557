// What the machine itself takes: the same bytes over a socket pair between two processes that do nothing
// else.

#include <benchmark/benchmark.h>

#include <vector>

#include <sys/socket.h>

#include "benchmarks/Peer.h"
#include "benchmarks/Sample.h"

namespace larkspan::benchmarks {

namespace {

constexpr std::size_t kBlock = 64 * 1024;
/// About what a short call takes.
constexpr std::size_t kCall = 100;

bool sendAll(int socket, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t count = send(socket, bytes, size < kBlock ? size : kBlock, MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

/// Answers each call with as many bytes as its first eight say.
int serveRaw() {
  char call[kCall];
  std::vector<char> answer;
  while (recv(kPeerSocket, call, kCall, MSG_WAITALL) == static_cast<ssize_t>(kCall)) {
    answer.resize(*reinterpret_cast<const uint64_t*>(call));
    if (!sendAll(kPeerSocket, answer.data(), answer.size())) break;
  }
  return 0;
}

namespace {

void raw(benchmark::State& state) {
  const PeerProcess peer("raw");
  alignas(uint64_t) char call[kCall] = {};
  const std::size_t size = state.range(0) == kItems ? bytesOfItems() : kCall;
  *reinterpret_cast<uint64_t*>(call) = size;
  std::vector<char> block(kBlock);
  const auto ask = [&] {
    sendAll(peer.socket(), call, kCall);
    for (std::size_t left = size; left > 0;) {
      const ssize_t count = recv(peer.socket(), block.data(), left < kBlock ? left : kBlock, 0);
      if (count <= 0) return false;
      left -= static_cast<std::size_t>(count);
    }
    return true;
  };
  ask();  // The first answer waits for the peer's start.
  for (auto _ : state) {
    if (!ask()) return state.SkipWithError("the peer is gone");
  }
}
BENCHMARK(raw)->Name("exchange/raw")->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(raw)->Name("items/raw")->Arg(kItems)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace larkspan::benchmarks
