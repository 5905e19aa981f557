#include "larkspan/platform/ipc/FrameWriter.h"

#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/ipc/TransportError.h"

#include <algorithm>
#include <utility>

#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace larkspan::platform {

namespace {

/// What a frame counts for that waits.
std::size_t costOf(const ByteBuffer& frame) { return std::max(frame.size(), limits::kLeastOutbound); }

}  // namespace

FrameWriter::FrameWriter(std::shared_ptr<const Descriptor> socket, std::string name)
    : socket_(std::move(socket)), name_(std::move(name)) {}

std::optional<Error> FrameWriter::write(ByteBuffer frame) {
  const std::lock_guard lock(mutex_);
  if (closed_) return std::nullopt;
  cost_ += costOf(frame);
  waiting_.push_back(std::move(frame));
  if (waiting_.size() == 1) flush();
  if (cost_ > limits::kMaximumOutbound)
    return transportError(TransportErrorCode::notReading, name_ + " does not read what is sent to it");
  if (waiting_.empty()) return std::nullopt;
  if (room_) {
    room_->setEvents(EPOLLOUT);
    return std::nullopt;
  }
  room_ = IoSource::make(socket_->get(), EPOLLOUT, [weak = weak_from_this()](uint32_t) {
    if (const auto self = weak.lock()) self->resume();
  });
  if (room_) return std::nullopt;
  return transportError(TransportErrorCode::interrupted,
                        Error::posix(errno, "Watching the connection to " + name_).localizedDescription());
}

void FrameWriter::resume() {
  const std::lock_guard lock(mutex_);
  if (closed_) return;
  flush();
  if (waiting_.empty()) room_->setEvents(0);
}

/// With the lock held.
void FrameWriter::flush() {
  while (!waiting_.empty()) {
    const ByteBuffer& first = waiting_.front();
    const ssize_t count =
        ::send(socket_->get(), first.data() + written_, first.size() - written_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      drop();
      // A peer that only shut its reading down would never be heard to end; what has arrived is still read.
      ::shutdown(socket_->get(), SHUT_RD);
      return;
    }
    written_ += static_cast<std::size_t>(count);
    if (written_ == first.size()) {
      cost_ -= costOf(first);
      written_ = 0;
      waiting_.pop_front();
    }
  }
}

/// With the lock held.
void FrameWriter::drop() {
  closed_ = true;
  waiting_.clear();
  cost_ = 0;
}

void FrameWriter::close() {
  std::unique_lock lock(mutex_);
  drop();
  const auto room = std::exchange(room_, nullptr);
  lock.unlock();
  // Its end waits for the handler, which takes the lock.
  if (room) room->cancel();
}

}  // namespace larkspan::platform
