#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

bool CFile::isFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool CFile::remove(const std::string& path) { return ::unlink(path.c_str()) == 0; }

bool CFile::read(const std::string& path, std::string& content) {
  content.clear();
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.valid()) return false;
  // The size is not asked for first: files of /proc have none.
  std::array<char, 4096> buffer;
  for (;;) {
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    if (count == 0) return true;
    if (count > 0) {
      content.append(buffer.data(), static_cast<size_t>(count));
    } else if (errno != EINTR) {
      content.clear();
      return false;
    }
  }
}

std::string CFile::link_target(const std::string& path) {
  std::array<char, 1023> buffer;
  const ssize_t length = ::readlink(path.c_str(), buffer.data(), buffer.size());
  return length > 0 ? std::string(buffer.data(), static_cast<size_t>(length)) : std::string();
}

}  // namespace Tessaro::Iot::Component
