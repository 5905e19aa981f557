#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/Frame.h"
#include "larkspan/platform/ipc/FrameBuffer.h"
#include "larkspan/platform/ipc/FrameWriter.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace larkspan::platform {

/// One end of a socket that carries the frames of any number of channels.
///
/// A thread of its own waits for what comes in and hands the frames on within one serial queue, the delivery queue:
/// as a rule it runs that queue itself, so that a message costs one wake-up at most. While a handler runs nothing more is
/// read, so that a peer that sends without end waits in the kernel and takes no memory here. Where the peer may open
/// channels there are two such threads, which read in turn: the one that read a call runs the first serial queue that its
/// handler posts to, unless an earlier one took long, and the other reads on. Outgoing frames are written by the thread
/// that sends; what the kernel does not take is kept, up to `kMaximumOutbound` bytes, and written on the input/output
/// thread.
///
/// Owner:   std::shared_ptr; what is delivered holds it, the reading threads do not. It closes when the last reference
///          goes, and they end with it.
/// Thread:  every function from any thread; callbacks on the delivery queue, mostly by a reading thread, and after
///          the end mostly by a worker.
/// Failure: a peer that breaks the protocol, or does not read, ends the transport: said once in the log, and
///          then to `onClose` and once to each channel. So does a thread that cannot be started.
class Transport : public std::enable_shared_from_this<Transport> {
 public:
  /// One end of a channel. Both functions run on the delivery queue.
  class Channel {
   public:
    virtual ~Channel() = default;
    virtual void received(const Frame& frame) = 0;
    /// No frame follows. `byPeer`: the peer closed this channel, the others go on.
    virtual void closed(const Error& error, bool byPeer) = 0;
  };

  struct Handlers {
    /// The peer has said hello in a version that is spoken here.
    std::function<void()> onHello;
    /// The peer opens a channel; answers who is at this end. Without this handler only this side may open
    /// channels.
    std::function<std::shared_ptr<Channel>(uint32_t channel)> onOpen;
    /// The last channel has been closed; another may have been opened since: see `closeIfUnused`.
    std::function<void(bool byPeer)> onLastChannel;
    /// The last callback, before the channels are told; the handlers are dropped after it.
    std::function<void(const Error& error)> onClose;
  };

  /// Takes a connected stream socket and says hello. `name` says in the log who the peer is.
  static std::shared_ptr<Transport> make(Descriptor socket, std::string name, Handlers handlers);
  ~Transport();

  /// Sends a whole frame. False when the transport is closed; that it returns true does not mean that the
  /// peer got it.
  bool send(ByteBuffer frame);
  /// The peer is about to answer, or to go on: before the thread that reads waits the next time it asks the socket for some
  /// tens of microseconds, where there is more than one processor. For what runs on the delivery queue; at other times that
  /// thread mostly waits already, and nothing changes.
  void expectAnswer() { *staysAwake_ = true; }
  /// Opens a channel: from now on its frames, and the news of the end, come to `channel`, which is not kept
  /// alive. False when the transport is closed already: then no news comes.
  bool open(uint32_t number, std::weak_ptr<Channel> channel);
  /// The same for a channel that the peer knows of by other means, and is not told of. The news of an end that has come
  /// already comes too. False when there is such a channel, or `limits::kMaximumChannels` of others.
  bool attach(uint32_t number, std::weak_ptr<Channel> channel);
  /// Closes a channel from this side: it is told nothing more, and the peer is told.
  void closeChannel(uint32_t number);
  /// Closes the transport unless it has a channel; false when it has, or is closed already.
  bool closeIfUnused(const Error& reason);
  /// Ends the transport as if the peer had gone away for this reason. Idempotent.
  void close(const Error& reason);
  /// The peer has ended for this reason: reads what it still said and closes.
  void peerEnded(const Error& reason);
  /// The same as `close` because of what the peer did; the reason is logged.
  void fail(const Error& reason);

  const std::string& name() const { return name_; }
  /// Why the transport has closed; nothing as long as it has not. It may be some time until the callbacks
  /// hear of it.
  std::optional<Error> closeReason() const;
  /// Whether the peer has answered a call since the transport was made; a connection notes that it has.
  bool hasReplied() const { return replied_; }
  void noteReply() { replied_ = true; }
  /// Whether the peer has said that it reads tables.
  Tables peerTables() const { return peerTables_; }
  /// Whether the peer has said that it takes replies in parts.
  bool peerTakesParts() const { return peerTakesParts_; }

 private:
  Transport(Descriptor socket, std::string name, Handlers handlers);
  void start();
  struct Reading;
  static void read(Reading& reading);
  bool take(FrameBuffer& frames);
  void ended(std::string_view how, bool insideFrame);
  void finishClosing(std::unique_lock<std::mutex> lock, const Error& reason, bool isFault = false);
  void receive(Slice item);
  void route(const Frame& frame);
  void forget(uint32_t number, bool byPeer);

  const std::shared_ptr<const Descriptor> socket_;  // Shared with the reading thread.
  const std::shared_ptr<std::atomic<bool>> staysAwake_ =
      std::make_shared<std::atomic<bool>>(false);  // The same.
  const std::string name_;
  const std::shared_ptr<DispatchQueue> queue_;
  const std::shared_ptr<FrameWriter> writer_;

  mutable std::mutex mutex_;
  std::unordered_map<uint32_t, std::weak_ptr<Channel>> channels_;
  std::atomic<bool> closed_{false};  // Written under the mutex.
  std::optional<Error> closeReason_;
  std::optional<Error> peerEnd_;  // What `peerEnded` was told.

  // On the delivery queue only:
  Handlers handlers_;
  bool greeted_ = false;

  std::atomic<bool> replied_{false};
  std::atomic<Tables> peerTables_{Tables::no};
  std::atomic<bool> peerTakesParts_{false};
};

}  // namespace larkspan::platform
