#include "larkspan/platform/ipc/Transport.h"

#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/dispatch/Thread.h"
#include "larkspan/platform/dispatch/WorkerPool.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/ipc/TransportLog.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <system_error>
#include <thread>
#include <utility>

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

namespace larkspan::platform {

namespace {

/// What takes long is better off on a processor of its own than on that of the thread which woke for it. So if a call took
/// that long, workers run what comes with so many of the next reads.
constexpr std::chrono::microseconds kLong{100};
constexpr unsigned kWorkersTurn = 32;

/// How long a reader asks again and again for an answer before it waits. Waking it takes some 30 us of the peer's time and
/// 10 us more until it runs, as much as many an answer; and what a peer takes for the next part of a long one, with such a
/// wake-up in it, must not be too long again.
constexpr std::chrono::microseconds kWakeful{90};

Error violation(std::string_view what) { return transportError(TransportErrorCode::violation, what); }

}  // namespace

Transport::Transport(Descriptor socket, std::string name, Handlers handlers)
    : socket_(std::make_shared<const Descriptor>(std::move(socket))),
      name_(std::move(name)),
      queue_(DispatchQueue::makeSerial("corvane.Larkspan.transport", QualityOfService::userInitiated)),
      writer_(std::make_shared<FrameWriter>(socket_, name_)),
      handlers_(std::move(handlers)) {}

std::shared_ptr<Transport> Transport::make(Descriptor socket, std::string name, Handlers handlers) {
  std::shared_ptr<Transport> transport(
      new Transport(std::move(socket), std::move(name), std::move(handlers)));
  transport->start();
  return transport;
}

Transport::~Transport() { ::shutdown(socket_->get(), SHUT_RDWR); }

/// What the reading threads of a transport share. They hold the transport only while they have something for it.
struct Transport::Reading {
  const std::shared_ptr<const Descriptor> socket;
  const std::weak_ptr<Transport> transport;
  /// For the next read; any read ends it.
  const std::shared_ptr<std::atomic<bool>> staysAwake;
  std::mutex mutex;
  std::condition_variable changed;
  bool isFree = true;  // Nobody reads.
  /// Threads that wait for their turn, which they do until the one that reads gives it up.
  std::atomic<int> substitutes{0};
  bool hasEnded = false;
  /// How often from now on what has been read is left to the workers.
  std::atomic<unsigned> workersTurn{0};
  FrameBuffer frames;  // Of the thread that reads.

  explicit Reading(Transport& owner)
      : socket(owner.socket_), transport(owner.weak_from_this()), staysAwake(owner.staysAwake_) {}
  /// False when there is nothing more to read.
  bool waitForTurn(std::unique_lock<std::mutex>& lock) {
    ++substitutes;
    changed.wait(lock, [this] { return isFree || hasEnded; });
    --substitutes;
    return !hasEnded;
  }
  /// recv(2), which waits.
  ssize_t receive(std::span<char> room);
  /// False when there is nothing more to read.
  bool step();
};

void Transport::start() {
  // Before anything is sent: when that fails, a worker drops the handlers.
  const bool serves = handlers_.onOpen != nullptr;
  send(encodeHello());
  // One that serves calls reads with two threads in turn: what has read a call runs it, and the other reads on.
  const auto reading = std::make_shared<Reading>(*this);
  try {
    for (unsigned i = serves ? 2 : 1; i > 0; --i) startThread("lks-reader", [reading] { read(*reading); });
  } catch (const std::system_error& error) {
    close(transportError(TransportErrorCode::launchFailed,
                         Error::posix(error.code().value(), "Reading from " + name_).localizedDescription()));
  }
}

/// A reading thread.
void Transport::read(Reading& reading) {
  using Clock = std::chrono::steady_clock;
  std::unique_lock lock(reading.mutex);
  while (reading.waitForTurn(lock)) {
    reading.isFree = false;
    lock.unlock();
    std::optional<WorkerPool::Kept> kept;
    bool more = true;
    while (more && !(kept && *kept)) {
      kept.reset();
      if (reading.substitutes > 0 && reading.workersTurn == 0) kept.emplace();
      if (reading.workersTurn > 0) --reading.workersTurn;
      more = reading.step();
    }
    lock.lock();
    reading.isFree = true;
    reading.hasEnded = !more;
    lock.unlock();
    reading.changed.notify_one();
    const auto start = Clock::now();
    kept.reset();
    if (Clock::now() - start > kLong) reading.workersTurn = kWorkersTurn;
    lock.lock();
  }
}

ssize_t Transport::Reading::receive(std::span<char> room) {
  using Clock = std::chrono::steady_clock;
  // On a single processor it would only keep the peer from running.
  static const bool hasSeveralProcessors = std::thread::hardware_concurrency() > 1;
  const bool isWakeful = *staysAwake && hasSeveralProcessors;
  for (const auto end = isWakeful ? Clock::now() + kWakeful : Clock::time_point();;) {
    const ssize_t count = ::recv(socket->get(), room.data(), room.size(), MSG_DONTWAIT);
    if (count >= 0 || errno != EAGAIN) return count;
    if (isWakeful && Clock::now() < end) {
      std::this_thread::yield();
      continue;
    }
    // A thread that waits in recv(2) wakes each time the peer has read something, too.
    pollfd watched{socket->get(), POLLIN, 0};
    if (::poll(&watched, 1, -1) < 0 && errno != EINTR)
      return ::recv(socket->get(), room.data(), room.size(), 0);
  }
}

/// Waits for something to read, which `shutdown` ends, too, and delivers it.
bool Transport::Reading::step() {
  const std::span<char> room = frames.room();
  const ssize_t count = receive(room);
  const int fault = count < 0 ? errno : 0;
  *staysAwake = false;
  if (fault == EINTR) return true;
  const auto self = transport.lock();
  if (!self) return false;
  bool more = false;
  self->queue_->sync([&] {
    if (count > 0) {
      frames.add(static_cast<std::size_t>(count));
      more = self->take(frames);
    } else {
      self->ended(
          fault == 0 ? self->name_ + " went away" : Error::posix(fault, self->name_).localizedDescription(),
          fault == 0 && frames.isInside());
    }
  });
  return more;
}

/// False when the transport is closed.
bool Transport::take(FrameBuffer& frames) {
  for (Slice item; !closed_ && frames.next(item);) receive(std::move(item));
  if (frames.length() > limits::kMaximumFrame) {
    fail(violation(
        format("A frame of %zu bytes, more than the limit of %zu", frames.length(), limits::kMaximumFrame)));
  }
  return !closed_;
}

void Transport::ended(std::string_view how, bool insideFrame) {
  if (insideFrame) return fail(violation("The connection ended inside a frame"));
  std::unique_lock lock(mutex_);
  const Error reason = peerEnd_.value_or(transportError(TransportErrorCode::interrupted, how));
  lock.unlock();
  close(reason);
}

void Transport::receive(Slice item) {
  auto parsed = Frame::parse(std::move(item));
  if (const auto* error = std::get_if<Error>(&parsed)) return fail(violation(error->localizedDescription()));
  route(std::get<Frame>(parsed));
}

void Transport::route(const Frame& frame) {
  if (greeted_ == (frame.type == FrameType::hello)) {
    return fail(violation(greeted_ ? "A second hello" : "The first frame is no hello"));
  }
  if (frame.type == FrameType::hello) {
    CborReader reader(frame.bytes.view());
    reader.moveTo(frame.body);
    const auto hello = decodeValue(frame.bytes, reader, ClassSet::allValues());
    if (hello.error) return fail(violation(hello.error->localizedDescription()));
    const Dictionary content = hello.value.dictionary();
    if (content.get("protocol") != Value(kProtocolName))
      return fail(violation("The hello names another protocol"));
    if (const int64_t version = content.get("version").integerValue(); version != kProtocolVersion) {
      return fail(violation(format("The peer speaks version %lld of the protocol", version)));
    }
    const Array capabilities = content.get("capabilities").array();
    const auto has = [&](std::string_view capability) {
      return std::count(capabilities.begin(), capabilities.end(), Value(capability)) > 0;
    };
    if (has(kTablesCapability)) peerTables_ = Tables::yes;
    peerTakesParts_ = has(kPartsCapability);
    greeted_ = true;
    if (handlers_.onHello) handlers_.onHello();
    return;
  }
  std::shared_ptr<Channel> channel;
  bool known, full;
  {
    const std::lock_guard lock(mutex_);
    full = channels_.size() >= limits::kMaximumChannels;
    const auto found = channels_.find(frame.channel);
    known = found != channels_.end();
    if (known) channel = found->second.lock();
  }
  if (frame.type == FrameType::open) {
    if (known || full || !handlers_.onOpen)
      return fail(violation(full ? "Too many channels" : "A channel that cannot be opened"));
    attach(frame.channel, handlers_.onOpen(frame.channel));
    return;
  }
  // Frames of a channel that was closed here may still be under way.
  if (!channel) return;
  if (frame.type == FrameType::close) {
    forget(frame.channel, true);
    return channel->closed(transportError(TransportErrorCode::invalidated, name_ + " closed the channel"),
                           true);
  }
  channel->received(frame);
}

bool Transport::send(ByteBuffer frame) {
  if (closed_) return false;
  const auto error = writer_->write(std::move(frame));
  if (error) fail(*error);
  return !error;
}

bool Transport::open(uint32_t number, std::weak_ptr<Channel> channel) {
  {
    const std::lock_guard lock(mutex_);
    if (closed_) return false;
    channels_[number] = std::move(channel);
  }
  send(encodeChannelFrame(FrameType::open, number));
  return true;
}

bool Transport::attach(uint32_t number, std::weak_ptr<Channel> channel) {
  const std::lock_guard lock(mutex_);
  if (!closed_) {
    return channels_.size() < limits::kMaximumChannels &&
           channels_.emplace(number, std::move(channel)).second;
  }
  queue_->async([channel = std::move(channel), reason = *closeReason_] {
    if (const auto late = channel.lock()) late->closed(reason, false);
  });
  return true;
}

void Transport::closeChannel(uint32_t number) {
  send(encodeChannelFrame(FrameType::close, number));
  forget(number, false);
}

void Transport::forget(uint32_t number, bool byPeer) {
  bool last;
  {
    const std::lock_guard lock(mutex_);
    last = channels_.erase(number) > 0 && channels_.empty() && !closed_;
  }
  if (!last) return;
  queue_->async([self = shared_from_this(), byPeer] {
    if (self->handlers_.onLastChannel) self->handlers_.onLastChannel(byPeer);
  });
}

std::optional<Error> Transport::closeReason() const {
  const std::lock_guard lock(mutex_);
  return closeReason_;
}

// The kernel still hands out what has arrived, and then says end of file although others may hold the other end.
void Transport::peerEnded(const Error& reason) {
  {
    const std::lock_guard lock(mutex_);
    peerEnd_ = reason;
  }
  ::shutdown(socket_->get(), SHUT_RD);
}

void Transport::fail(const Error& reason) {
  std::unique_lock lock(mutex_);
  if (!closed_) finishClosing(std::move(lock), reason, true);
}

bool Transport::closeIfUnused(const Error& reason) {
  std::unique_lock lock(mutex_);
  if (closed_ || !channels_.empty()) return false;
  finishClosing(std::move(lock), reason);
  return true;
}

void Transport::close(const Error& reason) {
  std::unique_lock lock(mutex_);
  if (!closed_) finishClosing(std::move(lock), reason);
}

void Transport::finishClosing(std::unique_lock<std::mutex> lock, const Error& reason, bool isFault) {
  closed_ = true;
  closeReason_ = reason;
  lock.unlock();
  if (isFault) {
    transportLog().write(LogLevel::fault,
                         format("Connection to %@ ended: %@", name_, reason.localizedDescription()));
  }
  writer_->close();
  ::shutdown(socket_->get(), SHUT_RDWR);
  queue_->async([self = shared_from_this(), reason] {
    std::unordered_map<uint32_t, std::weak_ptr<Channel>> channels;
    {
      const std::lock_guard guard(self->mutex_);
      channels.swap(self->channels_);
    }
    const Handlers handlers = std::exchange(self->handlers_, {});
    if (handlers.onClose) handlers.onClose(reason);
    for (const auto& [number, weak] : channels) {
      if (const auto channel = weak.lock()) channel->closed(reason, false);
    }
  });
}

}  // namespace larkspan::platform
