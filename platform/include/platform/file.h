// Plain files.
#pragma once

#include <cstddef>
#include <string>

namespace Tessaro::Iot::Component {

class CFile {
 public:
  // True when `path` is a regular file (a link to one does not count).
  // Context: any thread.
  [[nodiscard]] static bool isFile(const std::string& path);

  // Removes the name `path`, whatever it is but a directory. Returns true when it is gone through this call.
  // Context: any thread.
  static bool remove(const std::string& path);

  // Fills `content` with the whole file. Returns false when it cannot be opened or read.
  // Context: any thread.
  [[nodiscard]] static bool read(const std::string& path, std::string& content);

  // The target of the symbolic link `path`, cut at 1023 bytes; empty when it cannot be read.
  // Context: any thread.
  [[nodiscard]] static std::string link_target(const std::string& path);
};

}  // namespace Tessaro::Iot::Component
