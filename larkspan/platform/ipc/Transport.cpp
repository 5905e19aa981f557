#include "larkspan/platform/ipc/Transport.h"

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/ipc/TransportLog.h"

#include <array>
#include <utility>

#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace larkspan::platform {

namespace {

constexpr std::size_t kReadSize = 64 * 1024;
/// Reads in one task of the delivery queue, so that a peer which sends without end does not keep out what else is to
/// run there.
constexpr int kReadsAtOnce = 16;
/// Reads of what a peer that has ended left behind: more than a socket's buffer holds.
constexpr int kLastReads = 256;

Error violation(std::string_view what) { return transportError(TransportErrorCode::violation, what); }

/// The length that stands at the front of a frame.
std::size_t frameLength(std::string_view bytes) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < kFrameLengthSize; ++i)
    length = length << 8 | static_cast<unsigned char>(bytes[i]);
  return length;
}

}  // namespace

Transport::Transport(Descriptor socket, std::string name, Handlers handlers)
    : socket_(std::move(socket)),
      name_(std::move(name)),
      queue_(DispatchQueue::makeSerial("corvane.Larkspan.transport", QualityOfService::userInitiated)),
      handlers_(std::move(handlers)) {}

std::shared_ptr<Transport> Transport::make(Descriptor socket, std::string name, Handlers handlers) {
  std::shared_ptr<Transport> transport(
      new Transport(std::move(socket), std::move(name), std::move(handlers)));
  transport->start();
  return transport;
}

Transport::~Transport() {
  if (source_) source_->cancel();
}

void Transport::start() {
  const std::weak_ptr<Transport> weak = weak_from_this();
  auto source = IoSource::make(socket_.get(), EPOLLIN, [weak](uint32_t events) {
    if (const auto self = weak.lock()) self->ready(events);
  });
  if (!source) {
    close(Error::posix(errno, "Watching the connection to " + name_));
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    source_ = std::move(source);
  }
  send(encodeHello());
}

/// On the input/output thread: hands reading over to the delivery queue and watches for nothing but room to
/// write until that is done.
void Transport::ready(uint32_t events) {
  std::unique_lock lock(mutex_);
  if (closed_) return;
  if (events & EPOLLOUT) flush();
  if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0 && !reading_) {
    reading_ = true;
    queue_->async([self = shared_from_this()] { self->readAvailable(kReadsAtOnce); });
  }
  watch();
}

/// With the lock held.
void Transport::watch() {
  if (closed_ || !source_) return;
  uint32_t events = 0;
  if (!reading_) events |= EPOLLIN;
  if (!outbound_.empty()) events |= EPOLLOUT;
  source_->setEvents(events);
}

void Transport::readAvailable(int reads) {
  // Left uninitialised on purpose: recv(2) fills what is read of it.
  std::array<char, kReadSize> buffer;
  for (; reads > 0; --reads) {
    {
      const std::lock_guard lock(mutex_);
      if (closed_) return;
    }
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) {
      if (!takeBytes({buffer.data(), static_cast<std::size_t>(count)})) return;
    } else if (count == 0) {
      if (partial_.empty())
        return close(transportError(TransportErrorCode::interrupted, name_ + " went away"));
      return fail(violation("The connection ended inside a frame"));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      const std::lock_guard lock(mutex_);
      reading_ = false;
      watch();
      return;
    } else if (errno != EINTR) {
      return close(
          transportError(TransportErrorCode::interrupted, Error::posix(errno, name_).localizedDescription()));
    }
  }
  queue_->async([self = shared_from_this()] { self->readAvailable(kReadsAtOnce); });
}

/// Cuts the bytes into frames. False when the transport is closed.
bool Transport::takeBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    if (partial_.empty() && bytes.size() >= kFrameLengthSize) {
      const std::size_t length = frameLength(bytes);
      if (length <= bytes.size() - kFrameLengthSize) {
        receive(Slice::copy(bytes.substr(kFrameLengthSize, length)));
        bytes.remove_prefix(kFrameLengthSize + length);
        continue;
      }
    }
    std::size_t wanted = kFrameLengthSize;
    if (partial_.size() >= kFrameLengthSize) {
      const std::size_t length = frameLength(partial_);
      if (length > limits::kMaximumFrame) {
        fail(violation(
            format("A frame of %zu bytes, more than the limit of %zu", length, limits::kMaximumFrame)));
        return false;
      }
      wanted += length;
    }
    const std::string_view taken = bytes.substr(0, wanted - partial_.size());
    partial_.append(taken);
    bytes.remove_prefix(taken.size());
    if (partial_.size() == wanted && wanted > kFrameLengthSize) {
      receive(Slice::copy(std::string_view(partial_).substr(kFrameLengthSize)));
      partial_.clear();
    } else if (partial_.size() == kFrameLengthSize && frameLength(partial_) == 0) {
      receive({});
      partial_.clear();
    }
  }
  if (partial_.empty()) partial_.shrink_to_fit();
  const std::lock_guard lock(mutex_);
  return !closed_;
}

void Transport::receive(Slice item) {
  {
    const std::lock_guard lock(mutex_);
    if (closed_) return;
  }
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
    const Dictionary content = hello.value.dictionary();
    if (content.get("protocol") != Value(kProtocolName))
      return fail(violation("The hello names another protocol"));
    if (const int64_t version = content.get("version").integerValue(); version != kProtocolVersion) {
      return fail(violation(format("The peer speaks version %lld of the protocol", version)));
    }
    greeted_ = true;
    if (handlers_.onHello) handlers_.onHello();
    return;
  }
  std::shared_ptr<Channel> channel;
  bool known;
  {
    const std::lock_guard lock(mutex_);
    const auto found = channels_.find(frame.channel);
    known = found != channels_.end();
    if (known) channel = found->second.lock();
  }
  if (frame.type == FrameType::open) {
    if (known || !handlers_.onOpen) return fail(violation("A channel that cannot be opened"));
    channel = handlers_.onOpen(frame.channel);
    const std::lock_guard lock(mutex_);
    if (!closed_) channels_.emplace(frame.channel, channel);
    return;
  }
  // Frames of a channel that was closed here may still be under way.
  if (!channel) return;
  if (frame.type == FrameType::close) {
    channel->closed(transportError(TransportErrorCode::invalidated, name_ + " closed the channel"), true);
    return forget(frame.channel);
  }
  channel->received(frame);
}

bool Transport::send(ByteBuffer frame) {
  std::unique_lock lock(mutex_);
  if (closed_) return false;
  if (writeBroken_) return true;
  outboundBytes_ += frame.size();
  outbound_.push_back(std::move(frame));
  if (outbound_.size() == 1) flush();
  if (outboundBytes_ > limits::kMaximumOutbound) {
    lock.unlock();
    fail(transportError(TransportErrorCode::notReading, name_ + " does not read what is sent to it"));
    return false;
  }
  if (!outbound_.empty()) watch();
  return true;
}

/// Writes what the kernel takes; with the lock held.
void Transport::flush() {
  while (!outbound_.empty()) {
    const ByteBuffer& first = outbound_.front();
    const ssize_t count = ::send(socket_.get(), first.data() + outboundOffset_,
                                 first.size() - outboundOffset_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      // The peer has gone; reading finds out why, after what it still said.
      writeBroken_ = true;
      outbound_.clear();
      outboundBytes_ = 0;
      return;
    }
    outboundOffset_ += static_cast<std::size_t>(count);
    if (outboundOffset_ == first.size()) {
      outboundBytes_ -= first.size();
      outboundOffset_ = 0;
      outbound_.pop_front();
    }
  }
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

void Transport::closeChannel(uint32_t number) {
  send(encodeChannelFrame(FrameType::close, number));
  forget(number);
}

void Transport::forget(uint32_t number) {
  bool last;
  {
    const std::lock_guard lock(mutex_);
    last = channels_.erase(number) > 0 && channels_.empty() && !closed_;
  }
  if (!last) return;
  queue_->async([self = shared_from_this()] {
    if (self->handlers_.onLastChannel) self->handlers_.onLastChannel();
  });
}

std::optional<Error> Transport::closeReason() const {
  const std::lock_guard lock(mutex_);
  return closeReason_;
}

void Transport::peerEnded(const Error& reason) {
  queue_->async([self = shared_from_this(), reason] {
    self->readAvailable(kLastReads);
    self->close(reason);
  });
}

void Transport::fail(const Error& reason) {
  {
    const std::lock_guard lock(mutex_);
    if (closed_) return;
  }
  transportLog().write(LogLevel::fault,
                       format("Connection to %@ ended: %@", name_, reason.localizedDescription()));
  close(reason);
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

void Transport::finishClosing(std::unique_lock<std::mutex> lock, const Error& reason) {
  closed_ = true;
  closeReason_ = reason;
  const auto source = std::exchange(source_, nullptr);
  outbound_.clear();
  outboundBytes_ = 0;
  lock.unlock();
  if (source) source->cancel();
  ::shutdown(socket_.get(), SHUT_RDWR);
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
