#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/Value.h"
#include "larkspan/platform/ipc/Interface.h"
#include "larkspan/platform/ipc/Transport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace larkspan::platform {

/// Answers one call of the peer, once, from any thread. Copies share the answer; when the last is dropped
/// without an answer the caller is told so. A second answer is refused with a line in the log.
class Reply {
 public:
  Reply() = default;
  Reply(std::shared_ptr<Transport> transport, uint32_t channel, int64_t id, bool inParts);

  /// Sends the values. What cannot be sent (too large, not archivable) fails this call alone.
  void operator()(const std::vector<Value>& values) const;
  void fail(const Error& error) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

/// What the peer's calls reach. Held weakly by the connection.
class ExportedObject {
 public:
  virtual ~ExportedObject() = default;
  /// One call with as many arguments as the interface says, each of an allowed class or none. Runs on the
  /// delivery queue and should not block. What it posts to a serial queue may run on this very thread once it has
  /// returned: in here only `DispatchQueue::sync` may wait for that. `reply` does nothing for a one-way message.
  virtual void receive(std::string_view method, const std::vector<Value>& arguments, Reply reply) = 0;
};

/// One channel between two processes, on which each side may call the other.
///
/// Made with a connector, it finds its peer on first use; when the peer goes away the calls under way fail,
/// the interruption handler runs, and the next use connects again to a peer that knows nothing of earlier
/// calls. Made for a channel that the peer opened, it is invalid once the peer is gone.
///
/// Owner:   std::shared_ptr. Calls under way keep it alive; otherwise it ends with its last reference.
/// Thread:  every function from any thread. Replies, incoming calls and handlers run on the transport's
///          delivery queue, one at a time: blocking there holds up everything from this peer. What fails at
///          once is told on the calling thread.
/// Failure: each call has exactly one outcome. Errors have the domain `kTransportErrorDomain`, or are the
///          peer's own.
class Connection : public Transport::Channel, public std::enable_shared_from_this<Connection> {
 public:
  using Connected = std::function<void(std::shared_ptr<Transport>, std::optional<Error>)>;
  /// Finds or starts the peer and calls back once, on any thread, with an open transport or an error. What it returns, if
  /// not null, is called when nobody waits for that any more.
  using Abandon = std::function<void()>;
  using Connector = std::function<Abandon(Connected)>;
  /// Either the reply's values (as many as the interface says) or an error.
  using Outcome = std::function<void(const std::vector<Value>& values, const std::optional<Error>& error)>;
  /// Some members of the array that is the reply's first value: they stand behind earlier parts and before the reply's own.
  using Part = std::function<void(const Array& members)>;

  static std::shared_ptr<Connection> make(Connector connector);
  /// This end of a channel that the peer has opened.
  static std::shared_ptr<Connection> accept(std::shared_ptr<Transport> transport, uint32_t channel);
  ~Connection() override;

  /// To be set before the first call. The interfaces are kept, the object is not.
  void setRemoteInterface(std::shared_ptr<const Interface> interface);
  void setExported(std::shared_ptr<const Interface> interface, std::weak_ptr<ExportedObject> object);
  /// Replace earlier ones. The invalidation handler of a connection that has ended is called at once.
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);

  /// Connects now, without a call; tells whether that went well. An error also invalidates.
  void connect(std::function<void(const std::optional<Error>&)> completion);
  /// An object that is passed by proxy is a `PassedObject` among the arguments, here and in `post`.
  /// For a method that replies in parts give `part`: without it a part ends the transport as a violation. Parts come on the
  /// delivery queue, before the outcome; after an outcome that is an error they count for nothing.
  void call(std::string_view method, const std::vector<Value>& arguments, Outcome outcome,
            Part part = nullptr);
  /// Sends a one-way message; an error says that it surely did not arrive.
  std::optional<Error> post(std::string_view method, const std::vector<Value>& arguments);
  /// Ends the connection for good: calls under way fail and the invalidation handler runs, both on the
  /// calling thread. A call whose part is being delivered at that moment fails on the delivery queue, after that.
  void invalidate();
  bool isValid() const;
  /// Keeps this connection, and with it the object, until it has ended.
  void keepUntilEnd(std::shared_ptr<void> object);

 private:
  struct Call {
    std::string method;
    Outcome outcome;
    std::shared_ptr<Connection> keepAlive;
    Part part;
    MessageCost cost{};  // Of the parts.
  };

  /// What this side has passed, and the channel over which it is called.
  struct Passed {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<ExportedObject> object;
  };

  Connection(Connector connector, std::shared_ptr<Transport> transport, uint32_t channel);
  void received(const Frame& frame) override;
  void closed(const Error& error, bool byPeer) override;
  void receiveCall(const Frame& frame);
  void receiveAnswer(const Frame& frame);
  void connected(const std::shared_ptr<Transport>& transport, const std::optional<Error>& error);
  Connected connectedHandler();
  void end(const Error& error);
  std::optional<Error> submit(ByteBuffer frame, std::unique_lock<std::mutex>& lock);
  void findTransport();
  std::optional<Error> numberPassed(std::string_view method, const std::vector<Value>& arguments) const;
  void pass(std::string_view method, const std::vector<Value>& arguments);
  void attachPassed();
  void takeBack(const std::vector<Value>& arguments);
  std::optional<Error> receivePassed(const Interface::Method& method, const std::vector<Value>& arguments,
                                     const std::shared_ptr<Transport>& transport);

  const Connector connector_;
  const uint32_t channel_;

  mutable std::mutex mutex_;
  std::shared_ptr<const Interface> remoteInterface_;
  std::shared_ptr<const Interface> exportedInterface_;
  std::weak_ptr<ExportedObject> exported_;
  std::function<void()> interruptionHandler_;
  std::function<void()> invalidationHandler_;
  std::shared_ptr<Transport> transport_;
  bool connecting_ = false;
  bool invalid_ = false;
  std::vector<ByteBuffer> pending_;  // Frames that wait for a transport.
  std::vector<std::function<void(const std::optional<Error>&)>> connectWaiters_;
  std::unordered_map<int64_t, Call> calls_;
  std::unordered_map<uint32_t, Passed> passed_;
  std::vector<std::shared_ptr<Connection>> unattached_;  // Among them, those that wait for a transport.
  std::shared_ptr<Connection> itself_;  // This and what `keepUntilEnd` was given, until the end.
  std::shared_ptr<void> kept_;
  Abandon abandon_;
  std::size_t pendingBytes_ = 0;
  int attempts_ = 0;  // To connect, since it last went well.
  int64_t lastId_ = 0;
};

}  // namespace larkspan::platform
