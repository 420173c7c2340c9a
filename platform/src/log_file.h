// The rotated log file.
#pragma once

#include <spdlog/logger.h>
#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

// Appends lines to one file of one directory, which it never creates: with no directory the line is dropped. The file
// follows its path: it is opened anew when it, or its directory, was removed or replaced.
class LogFile {
 public:
  LogFile(std::string directory, std::string name);

  // Appends the time and `text` as one line.
  // Context: any thread.
  void write(std::string_view text, bool flush) noexcept;

  // Context: any thread.
  void flush() noexcept;

 private:
  bool ready();
  bool open();
  void close() noexcept;
  void before_open(const std::string& path) const;
  void after_open(std::FILE* file);

  const std::string directory_;
  const std::string name_;
  const std::string path_;

  std::mutex mutex_;  // guards all below
  UniqueFd opened_directory_;
  std::shared_ptr<spdlog::logger> logger_;
  dev_t device_ = 0;  // of the file that is open
  ino_t inode_ = 0;
  bool failed_ = false;
};

}  // namespace Tessaro::Iot::Component
