#include "terminal_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace gateway {

Lock take_lock(const std::string& path) {
  std::error_code ignored;  // opening the file tells
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) return Lock{};
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(file.get(), F_SETLK, &lock) == 0) return {std::move(file), false};
  return {Descriptor(), errno == EAGAIN || errno == EACCES};
}

Descriptor listen_at(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return Descriptor();
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ::unlink(path.c_str());
  // The mode is there from the first moment: there is none in which others could connect.
  const mode_t old = ::umask(0177);
  const bool bound = ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::umask(old);
  if (!bound || ::listen(listener.get(), SOMAXCONN) != 0) return Descriptor();
  return listener;
}

Descriptor accept_friend(const Descriptor& listener) {
  Descriptor connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  ucred peer{};
  socklen_t size = sizeof peer;
  if (!connection.valid() || ::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return Descriptor();
  }
  return peer.uid == 0 || peer.uid == ::geteuid() ? std::move(connection) : Descriptor();
}

}  // namespace gateway
