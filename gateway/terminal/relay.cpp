#include "relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace gateway {
namespace {

bool is_passing(int error) { return error == EAGAIN || error == EINTR; }

// A socket is not written to by write: its peer may have gone, and SIGPIPE would be the answer.
ssize_t put(int target, const char* bytes, std::size_t count) {
  const ssize_t sent = ::send(target, bytes, count, MSG_NOSIGNAL);
  return sent < 0 && errno == ENOTSOCK ? ::write(target, bytes, count) : sent;
}

}  // namespace

short Relay::reads() const { return !ended_ && begin_ == end_ ? POLLIN : 0; }

short Relay::writes() const { return begin_ < end_ ? POLLOUT : 0; }

void Relay::fill(int source) {
  if (ended_ || begin_ < end_) return;
  const ssize_t count = ::read(source, bytes_.data(), bytes_.size());
  if (count < 0 && is_passing(errno)) return;
  begin_ = 0;
  end_ = count > 0 ? static_cast<std::size_t>(count) : 0;
  ended_ = count <= 0;
}

bool Relay::drain(int target) {
  while (begin_ < end_) {
    const ssize_t count = put(target, bytes_.data() + begin_, end_ - begin_);
    if (count < 0) return is_passing(errno);
    if (count == 0) return true;
    begin_ += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace gateway
