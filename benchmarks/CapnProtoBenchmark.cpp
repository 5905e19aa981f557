// The same exchange and the same items over Cap'n Proto's RPC.

#include <benchmark/benchmark.h>

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>
#include <storage.capnp.h>
#include <sys/socket.h>

#include "benchmarks/Peer.h"
#include "benchmarks/Sample.h"

namespace larkspan::benchmarks {

namespace {

void write(Date::Builder to, const platform::Date& date) {
  to.setSeconds(date.seconds);
  to.setNanoseconds(date.nanoseconds);
}

class Provider final : public Storage::Server {
 public:
  explicit Provider(int count) : items_(samples(count)) {}

 protected:
  kj::Promise<void> resources(ResourcesContext context) override {
    auto list = context.getResults().initItems(static_cast<unsigned>(items_.size()));
    for (unsigned i = 0; i < list.size(); ++i) {
      const Sample& from = items_[i];
      auto item = list[i];
      item.setKind(from.kind);
      item.setName(from.name);
      item.setUrl(from.url);
      item.setCategory(from.category);
      item.setSize(from.size);
      write(item.initCreated(), from.created);
      write(item.initModified(), from.modified);
      write(item.initOpened(), from.opened);
      item.setDeletable(from.deletable);
      item.setRevealable(from.revealable);
    }
    return kj::READY_NOW;
  }

 private:
  const std::vector<Sample> items_;
};

struct TwoParties {
  explicit TwoParties(int socket, capnp::rpc::twoparty::Side side)
      : stream(io.lowLevelProvider->wrapSocketFd(socket)),
        network(*stream, side, capnp::ReaderOptions{.traversalLimitInWords = UINT64_MAX}) {}

  kj::AsyncIoContext io = kj::setupAsyncIo();
  kj::Own<kj::AsyncIoStream> stream;
  capnp::TwoPartyVatNetwork network;
};

}  // namespace

int serveCapnProto() {
  TwoParties parties(kPeerSocket, capnp::rpc::twoparty::Side::SERVER);
  // The first word on the socket, before the protocol begins, says how many items there are.
  int32_t count = 0;
  if (recv(kPeerSocket, &count, sizeof count, MSG_WAITALL) != sizeof count) return 1;
  auto server = capnp::makeRpcServer(parties.network, kj::heap<Provider>(count));
  parties.network.onDisconnect().wait(parties.io.waitScope);
  return 0;
}

namespace {

void capnProto(benchmark::State& state) {
  const auto count = static_cast<int32_t>(state.range(0));
  const PeerProcess peer("capnproto");
  send(peer.socket(), &count, sizeof count, MSG_NOSIGNAL);
  TwoParties parties(peer.socket(), capnp::rpc::twoparty::Side::CLIENT);
  auto client = capnp::makeRpcClient(parties.network);
  capnp::MallocMessageBuilder message;
  auto vat = message.initRoot<capnp::rpc::twoparty::VatId>();
  vat.setSide(capnp::rpc::twoparty::Side::SERVER);
  Storage::Client storage = client.bootstrap(vat).castAs<Storage>();
  const auto reads = static_cast<Reads>(state.range(1));
  const Sum expected = expectedSum(count, reads);
  const auto ask = [&] {
    auto answer = storage.resourcesRequest().send().wait(parties.io.waitScope);
    Sum sum;
    for (auto item : answer.getItems()) {
      sum.size(item.getSize());
      if (reads == Reads::sizes) continue;
      for (auto text : {item.getKind(), item.getName(), item.getUrl(), item.getCategory()})
        sum.text(text.size());
      for (auto date : {item.getCreated(), item.getModified(), item.getOpened()})
        sum.date(date.getSeconds(), date.getNanoseconds());
      sum.flags(item.getDeletable(), item.getRevealable());
    }
    return sum == expected;
  };
  ask();  // The first answer waits for the peer's start.
  for (auto _ : state) {
    if (!ask()) return state.SkipWithError("a wrong answer");
  }
}
BENCHMARK(capnProto)->Name("exchange/capnproto")->Args({0, 0})->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(capnProto)
    ->Name("items/capnproto")
    ->Args({kItems, 0})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(capnProto)
    ->Name("items-read/capnproto")
    ->Args({kItems, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace larkspan::benchmarks
