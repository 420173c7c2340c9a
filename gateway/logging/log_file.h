// A log file of bounded size, with its old ones: "x.log", and "x.log.1" (the youngest), "x.log.2", ...
//
// Lines are written by write(2), without a buffer in between and without a library's log sink: the service answers for
// each line that it is in the file, and must know when it is not. A stream keeps what it could not write, and writes
// it, or half of it, later.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace gateway {

struct LogLimits {
  std::size_t file_size = std::size_t{256} * 1024;  // bytes; a single longer line still gets a file of its own
  int old_files = 3;
  std::size_t modules = 64;
};

class LogFile {
 public:
  LogFile(std::filesystem::path path, const LogLimits& limits);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Appends whole lines, all of them or nothing. The directory is made when it is missing, the file when it is missing
  // or has been put elsewhere; mode 0640, links are not followed. True: the kernel has them, and they outlive the
  // process however it ends.
  [[nodiscard]] bool append(std::string_view lines);

 private:
  bool ready(std::size_t& size);
  bool open(std::size_t& size);
  bool rotate();
  void close();

  std::filesystem::path path_;
  LogLimits limits_;
  int descriptor_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool torn_ = false;  // the last line in the file has no end
};

}  // namespace gateway
