#include "larkspan/platform/ipc/Connection.h"

#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/ipc/PassedObject.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/ipc/TransportLog.h"

#include <atomic>
#include <utility>

namespace larkspan::platform {

namespace {

/// Numbers are never used twice in a process, so that a channel keeps its number over all its transports.
uint32_t nextChannel() {
  static std::atomic<uint32_t> last{0};
  return ++last;
}

/// How often a transport that has just closed is replaced before that is an error.
constexpr int kConnectAttempts = 3;

const ClassSet& errorClass() {
  static const auto* classes = new ClassSet{ValueClass::error};
  return *classes;
}

Error notSendable(const Error& cause) {
  return transportError(TransportErrorCode::notSendable, cause.localizedDescription());
}

/// How many members of a list go ahead of a long reply at a time, so that the peer reads them while the next are written.
constexpr std::size_t kPartSize = 512;

/// Decodes an array of exactly the values that `classes` describes. `cost` is that of the message's earlier frames, to which
/// this one is added.
std::variant<std::vector<Value>, Error> decodeValues(const Frame& frame, std::span<const ClassSet> classes,
                                                     MessageCost& cost) {
  cost.bytes += frame.bytes.size();
  cost.elements += frame.elements;
  if (cost.bytes > limits::kMaximumFrame || cost.elements > limits::kMaximumElements)
    return transportError(TransportErrorCode::violation,
                          "The parts of a reply exceed the limits of a message");
  CborReader reader(frame.bytes.view());
  reader.moveTo(frame.body);
  const CborHead head = reader.next();
  if (head.major != CborMajor::array || head.argument != classes.size()) {
    return transportError(TransportErrorCode::violation, "A message with the wrong number of values");
  }
  std::vector<Value> values;
  values.reserve(classes.size());
  for (const ClassSet& allowed : classes) {
    auto [value, error] = decodeValue(frame.bytes, reader, allowed, frame.plainMaps, &cost);
    if (error) return transportError(TransportErrorCode::violation, error->localizedDescription());
    values.push_back(std::move(value));
  }
  return values;
}

}  // namespace

struct Reply::State {
  std::shared_ptr<Transport> transport;
  uint32_t channel;
  int64_t id;
  bool inParts;
  std::atomic<bool> answered{false};

  bool answer() {
    if (!answered.exchange(true)) return true;
    transportLog().write(LogLevel::fault, "A call was answered twice; the second answer is dropped");
    return false;
  }
  /// Sends the values, and before them what begins the first if that is a long list.
  std::optional<Error> send(const std::vector<Value>& values) {
    MessageCost cost;
    std::vector<Value> rest = values;
    bool isOpen = true;
    const auto sendFrame = [&](FrameType type, const std::vector<Value>& content) -> std::optional<Error> {
      auto frame = encodeFrame(type, channel, id, {}, content, transport->peerTables(), &cost);
      if (auto* error = std::get_if<Error>(&frame)) return std::move(*error);
      isOpen = transport->send(std::get<ByteBuffer>(std::move(frame)));
      return std::nullopt;
    };
    if (inParts && transport->peerTakesParts() && !rest.empty()) {
      const Array list = rest.front().array();
      std::size_t sent = 0;
      for (; isOpen && list.size() - sent > kPartSize; sent += kPartSize) {
        if (auto error = sendFrame(FrameType::part, {list.part(sent, kPartSize)})) return error;
      }
      if (sent > 0) rest.front() = list.part(sent, list.size() - sent);
    }
    return sendFrame(FrameType::reply, rest);
  }
  void sendFailure(const Error& error) {
    auto frame = encodeFrame(FrameType::failure, channel, id, {}, {error});
    if (!std::holds_alternative<ByteBuffer>(frame)) {
      // The error itself is too much to send.
      frame = encodeFrame(FrameType::failure, channel, id, {}, {Error(error.domain(), error.code())});
    }
    if (auto* bytes = std::get_if<ByteBuffer>(&frame)) transport->send(std::move(*bytes));
  }
  ~State() {
    if (!answered) sendFailure(transportError(TransportErrorCode::notAnswered, "The call was not answered"));
  }
};

Reply::Reply(std::shared_ptr<Transport> transport, uint32_t channel, int64_t id, bool inParts)
    : state_(new State{std::move(transport), channel, id, inParts, {}}) {}

void Reply::operator()(const std::vector<Value>& values) const {
  if (!state_ || !state_->answer()) return;
  if (const auto error = state_->send(values)) state_->sendFailure(notSendable(*error));
}

void Reply::fail(const Error& error) const {
  if (state_ && state_->answer()) state_->sendFailure(error);
}

Connection::Connection(Connector connector, std::shared_ptr<Transport> transport, uint32_t channel)
    : connector_(std::move(connector)), channel_(channel), transport_(std::move(transport)) {}

std::shared_ptr<Connection> Connection::make(Connector connector) {
  return std::shared_ptr<Connection>(new Connection(std::move(connector), nullptr, nextChannel()));
}

std::shared_ptr<Connection> Connection::accept(std::shared_ptr<Transport> transport, uint32_t channel) {
  return std::shared_ptr<Connection>(new Connection(nullptr, std::move(transport), channel));
}

Connection::~Connection() {
  if (transport_) transport_->closeChannel(channel_);
}

void Connection::setRemoteInterface(std::shared_ptr<const Interface> interface) {
  const std::lock_guard lock(mutex_);
  remoteInterface_ = std::move(interface);
}

void Connection::setExported(std::shared_ptr<const Interface> interface,
                             std::weak_ptr<ExportedObject> object) {
  const std::lock_guard lock(mutex_);
  exportedInterface_ = std::move(interface);
  exported_ = std::move(object);
}

void Connection::setInterruptionHandler(std::function<void()> handler) {
  const std::lock_guard lock(mutex_);
  interruptionHandler_.swap(handler);
}

void Connection::setInvalidationHandler(std::function<void()> handler) {
  std::unique_lock lock(mutex_);
  const bool late = invalid_;
  if (!late) invalidationHandler_.swap(handler);
  lock.unlock();
  if (late && handler) handler();
}

bool Connection::isValid() const {
  const std::lock_guard lock(mutex_);
  return !invalid_;
}

void Connection::keepUntilEnd(std::shared_ptr<void> object) {
  const std::lock_guard lock(mutex_);
  if (invalid_) return;
  itself_ = shared_from_this();
  kept_.swap(object);
}

void Connection::connect(std::function<void(const std::optional<Error>&)> completion) {
  std::unique_lock lock(mutex_);
  if (transport_ || invalid_) {
    const bool invalid = invalid_;
    lock.unlock();
    return completion(
        invalid ? std::optional(transportError(TransportErrorCode::invalidated, "The connection has ended"))
                : std::nullopt);
  }
  connectWaiters_.push_back(std::move(completion));
  submit({}, lock);
}

void Connection::call(std::string_view method, const std::vector<Value>& arguments, Outcome outcome,
                      Part part) {
  if (const auto error = numberPassed(method, arguments)) return outcome({}, *error);
  std::unique_lock lock(mutex_);
  const int64_t id = ++lastId_;
  const auto transport = transport_;
  lock.unlock();
  const Tables tables = transport ? transport->peerTables() : Tables::no;
  auto frame = encodeFrame(FrameType::call, channel_, id, method, arguments, tables);
  if (const auto* error = std::get_if<Error>(&frame)) return outcome({}, notSendable(*error));
  lock.lock();
  if (invalid_) {
    lock.unlock();
    return outcome({}, transportError(TransportErrorCode::invalidated, "The connection has ended"));
  }
  if (tables == Tables::yes && transport_ != transport) {
    // Who reads it now might know no tables.
    lock.unlock();
    return outcome({}, transportError(TransportErrorCode::interrupted, "The connection is interrupted"));
  }
  const auto self = shared_from_this();
  calls_.emplace(id, Call{std::string(method), std::move(outcome), self, std::move(part)});
  if (transport) transport->expectAnswer();
  pass(method, arguments);
  const auto error = submit(std::get<ByteBuffer>(std::move(frame)), lock);
  if (!error || !isTransportError(*error, TransportErrorCode::notReading)) return;
  takeBack(arguments);
  lock.lock();
  const auto call = calls_.extract(id);
  lock.unlock();
  if (call) call.mapped().outcome({}, *error);
}

std::optional<Error> Connection::post(std::string_view method, const std::vector<Value>& arguments) {
  if (auto error = numberPassed(method, arguments)) return error;
  std::unique_lock lock(mutex_);
  // One that a connector brings may have been replaced when the frame is sent.
  const auto transport = connector_ ? nullptr : transport_;
  lock.unlock();
  auto frame = encodeFrame(FrameType::post, channel_, 0, method, arguments,
                           transport ? transport->peerTables() : Tables::no);
  if (const auto* error = std::get_if<Error>(&frame)) return notSendable(*error);
  lock.lock();
  pass(method, arguments);
  auto error = submit(std::get<ByteBuffer>(std::move(frame)), lock);
  if (error) takeBack(arguments);
  return error;
}

/// Sends the frame now or once there is a transport; an empty frame only sees to the transport. Releases the
/// lock.
std::optional<Error> Connection::submit(ByteBuffer frame, std::unique_lock<std::mutex>& lock) {
  if (invalid_) {
    lock.unlock();
    return transportError(TransportErrorCode::invalidated, "The connection has ended");
  }
  if (const auto transport = transport_) {
    attachPassed();
    lock.unlock();
    // On a transport that has just closed, `closed()` is about to fail the call.
    const bool sent = frame.empty() || transport->send(std::move(frame));
    if (!sent) return transportError(TransportErrorCode::interrupted, "The connection is interrupted");
    return std::nullopt;
  }
  if (pendingBytes_ + frame.size() > limits::kMaximumOutbound) {
    lock.unlock();
    return transportError(TransportErrorCode::notReading, "Too much waits for the connection already");
  }
  pendingBytes_ += frame.size();
  if (!frame.empty()) pending_.push_back(std::move(frame));
  const bool begin = !std::exchange(connecting_, true);
  lock.unlock();
  if (begin) findTransport();
  return std::nullopt;
}

/// Gives each object that is to be passed the number of a channel of its own.
std::optional<Error> Connection::numberPassed(std::string_view method,
                                              const std::vector<Value>& arguments) const {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto object = arguments[i].objectOf<PassedObject>();
    if (!object) continue;
    std::unique_lock lock(mutex_);
    const auto interface = connector_ && remoteInterface_ ? remoteInterface_->interface(method, i) : nullptr;
    lock.unlock();
    if (!interface || !object->object_ || object->channel_ != 0)
      return transportError(TransportErrorCode::notSendable, "An object that cannot be passed there");
    object->channel_ = nextChannel();
  }
  return std::nullopt;
}

/// With the lock, when the frame with these arguments is about to be sent.
void Connection::pass(std::string_view method, const std::vector<Value>& arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto object = arguments[i].objectOf<PassedObject>();
    if (!object || invalid_) continue;
    const auto connection = accept(nullptr, object->channel_);
    connection->setExported(remoteInterface_->interface(method, i), object->object_);
    connection->setInvalidationHandler([weak = weak_from_this(), channel = object->channel_] {
      const auto self = weak.lock();
      if (!self) return;
      decltype(passed_)::node_type ended;
      const std::lock_guard guard(self->mutex_);
      ended = self->passed_.extract(channel);
    });
    passed_[object->channel_] = {connection, object->object_};
    unattached_.push_back(connection);
  }
}

/// With the lock and a transport: what is passed with the next frame gets its calls from then on.
void Connection::attachPassed() {
  for (const auto& connection : std::exchange(unattached_, {})) {
    {
      const std::lock_guard lock(connection->mutex_);
      connection->transport_ = transport_;
    }
    transport_->attach(connection->channel_, connection);
  }
}

/// The frame with these arguments has not been sent.
void Connection::takeBack(const std::vector<Value>& arguments) {
  for (const Value& argument : arguments) {
    const auto object = argument.objectOf<PassedObject>();
    if (!object) continue;
    std::unique_lock lock(mutex_);
    std::erase_if(unattached_, [&](const auto& one) { return one->channel_ == object->channel_; });
    const auto passed = passed_.extract(object->channel_);
    lock.unlock();
    if (passed) passed.mapped().connection->invalidate();
  }
}

/// Makes the way to each object that the peer has passed.
std::optional<Error> Connection::receivePassed(const Interface::Method& method,
                                               const std::vector<Value>& arguments,
                                               const std::shared_ptr<Transport>& transport) {
  for (const auto& [index, interface] : method.passed) {
    const auto object = arguments[index].objectOf<PassedObject>();
    if (!object) continue;
    const auto connection = accept(nullptr, object->channel_);
    connection->setRemoteInterface(interface);
    // Only one side chooses the numbers of channels.
    if (connector_ || !transport->attach(object->channel_, connection))
      return transportError(TransportErrorCode::violation, "An object on a channel that cannot be opened");
    const std::lock_guard lock(connection->mutex_);
    connection->transport_ = transport;
    object->connection_ = connection;
  }
  return std::nullopt;
}

/// Asks the connector, without the lock.
void Connection::findTransport() {
  Abandon abandon = connector_(connectedHandler());
  std::unique_lock lock(mutex_);
  if (connecting_) abandon_.swap(abandon);
  const bool isLate = invalid_;
  lock.unlock();
  if (isLate && abandon) abandon();
}

/// Holds the connection meanwhile: somebody waits for the outcome.
Connection::Connected Connection::connectedHandler() {
  return
      [self = shared_from_this()](const std::shared_ptr<Transport>& transport,
                                  const std::optional<Error>& error) { self->connected(transport, error); };
}

void Connection::connected(const std::shared_ptr<Transport>& transport, const std::optional<Error>& error) {
  if (!transport) {
    end(error.value_or(transportError(TransportErrorCode::launchFailed, "There is no peer")));
    return;
  }
  std::unique_lock lock(mutex_);
  if (invalid_) {
    lock.unlock();
    transport->closeIfUnused(
        transportError(TransportErrorCode::invalidated, "Nobody needs the connection any more"));
    return;
  }
  if (!transport->open(channel_, weak_from_this())) {
    // It closed before it knew of this channel. When it was only let go of, another one can be had: nothing has been
    // sent, so nothing has to fail.
    const auto reason = transport->closeReason();
    const bool again = reason && isTransportError(*reason, TransportErrorCode::invalidated) &&
                       ++attempts_ < kConnectAttempts;
    lock.unlock();
    if (again) return findTransport();
    return end(transportError(TransportErrorCode::interrupted, transport->name() + " went away"));
  }
  attempts_ = 0;
  connecting_ = false;
  const Abandon found = std::exchange(abandon_, nullptr);
  transport_ = transport;
  attachPassed();
  for (ByteBuffer& frame : pending_) transport->send(std::move(frame));
  pending_.clear();
  pendingBytes_ = 0;
  const auto waiters = std::exchange(connectWaiters_, {});
  lock.unlock();
  for (const auto& waiter : waiters) waiter(std::nullopt);
}

void Connection::invalidate() {
  end(transportError(TransportErrorCode::invalidated, "The connection was invalidated"));
}

/// Invalidates, and fails what is under way with this error.
void Connection::end(const Error& error) {
  std::unique_lock lock(mutex_);
  if (std::exchange(invalid_, true)) return;
  connecting_ = false;
  pending_.clear();
  const auto transport = std::exchange(transport_, nullptr);
  pendingBytes_ = 0;
  const auto calls = std::exchange(calls_, {});
  const auto passed = std::exchange(passed_, {});
  unattached_.clear();
  const auto itself = std::exchange(itself_, nullptr);
  const auto kept = std::exchange(kept_, nullptr);
  const auto abandon = std::exchange(abandon_, nullptr);
  const auto waiters = std::exchange(connectWaiters_, {});
  const auto interruption = std::exchange(interruptionHandler_, nullptr);
  const auto invalidation = std::exchange(invalidationHandler_, nullptr);
  lock.unlock();
  if (transport) transport->closeChannel(channel_);
  if (abandon) abandon();
  for (const auto& [id, call] : calls) call.outcome({}, error);
  for (const auto& [channel, object] : passed) object.connection->end(error);
  for (const auto& waiter : waiters) waiter(error);
  if (invalidation) invalidation();
}

void Connection::closed(const Error& error, bool byPeer) {
  const auto self = shared_from_this();
  if (!connector_ || byPeer) return end(error);
  std::unique_lock lock(mutex_);
  if (!std::exchange(transport_, nullptr)) return;
  const auto calls = std::exchange(calls_, {});
  const auto interruption = interruptionHandler_;
  lock.unlock();
  for (const auto& [id, call] : calls) call.outcome({}, error);
  if (interruption) interruption();
}

void Connection::received(const Frame& frame) {
  if (frame.type == FrameType::call || frame.type == FrameType::post) {
    receiveCall(frame);
  } else {
    receiveAnswer(frame);
  }
}

void Connection::receiveCall(const Frame& frame) {
  std::unique_lock lock(mutex_);
  const auto transport = transport_;
  const auto interface = exportedInterface_;
  const auto object = exported_.lock();
  lock.unlock();
  if (!transport) return;
  const bool answers = frame.type == FrameType::call;
  const Interface::Method* method = interface ? interface->find(frame.method) : nullptr;
  const Reply reply = answers ? Reply(transport, channel_, frame.id, method && method->inParts) : Reply();
  if (!method || method->reply.has_value() != answers) {
    return reply.fail(
        transportError(TransportErrorCode::unknownMethod, format("No method \"%@\"", frame.method)));
  }
  MessageCost cost;
  auto arguments = decodeValues(frame, method->arguments, cost);
  if (const auto* error = std::get_if<Error>(&arguments)) {
    reply.fail(*error);
    return transport->fail(*error);
  }
  if (const auto error = receivePassed(*method, std::get<std::vector<Value>>(arguments), transport)) {
    reply.fail(*error);
    return transport->fail(*error);
  }
  // Without an object the reply is dropped, which answers the call.
  if (object) object->receive(method->name, std::get<std::vector<Value>>(arguments), reply);
}

void Connection::receiveAnswer(const Frame& frame) {
  std::unique_lock lock(mutex_);
  const auto transport = transport_;
  if (!transport) return;
  auto call = calls_.extract(frame.id);
  const auto interface = remoteInterface_;
  lock.unlock();
  if (call.empty()) {
    return transport->fail(
        transportError(TransportErrorCode::violation, "An answer to no call, or a second one"));
  }
  const Outcome& outcome = call.mapped().outcome;
  const auto end = [&](const std::vector<Value>& values, const std::optional<Error>& error) {
    transport->noteReply();
    outcome(values, error);
  };
  const auto refuse = [&](const Error& fault) {
    outcome({}, fault);
    transport->fail(fault);
  };
  if (frame.type == FrameType::failure) {
    CborReader reader(frame.bytes.view());
    reader.moveTo(frame.body);
    const auto [value, fault] = decodeValue(frame.bytes, reader, errorClass());
    if (const auto error = value.error()) return end({}, *error);
    return refuse(transportError(TransportErrorCode::violation,
                                 fault ? fault->localizedDescription() : "A failure without an error"));
  }
  const Interface::Method* method = interface ? interface->find(call.mapped().method) : nullptr;
  const std::span<const ClassSet> classes =
      method && method->reply ? std::span<const ClassSet>(*method->reply) : std::span<const ClassSet>();
  const bool isPart = frame.type == FrameType::part;
  if (isPart && !(call.mapped().part && method && method->inParts && !classes.empty()))
    return refuse(transportError(TransportErrorCode::violation, "A part of a reply that comes whole"));
  auto values = decodeValues(frame, classes.first(isPart ? 1 : classes.size()), call.mapped().cost);
  if (const auto* error = std::get_if<Error>(&values)) return refuse(*error);
  const auto& content = std::get<std::vector<Value>>(values);
  if (!isPart) return end(content, std::nullopt);
  const Array members = content.front().array();
  call.mapped().part(members);
  // Only after one as long as those sent here: small ones without end would keep the thread awake.
  if (members.size() >= kPartSize) transport->expectAnswer();
  lock.lock();
  if (!invalid_) {
    calls_.insert(std::move(call));
    return;
  }
  lock.unlock();
  outcome({}, transportError(TransportErrorCode::invalidated, "The connection ended inside a reply"));
}

}  // namespace larkspan::platform
