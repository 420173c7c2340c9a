// The files of all modules, and what could not be written to them.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "log_file.h"

namespace gateway {

// Keeps a file for each module, for as many modules as may be: those whose files are in the directory already, then
// the next that come. What comes beyond goes to one shared file, with the module's name in each line. A place becomes
// free when a module's file is removed. So what is kept is bounded, whatever the callers do.
//
// A line that cannot be written is dropped and counted. The next line that can be written to that file is preceded by
// one that tells the count.
class LogStore {
 public:
  LogStore(std::filesystem::path directory, const LogLimits& limits);

  // True when the line is in the kernel's hands. Never throws for what the file system does.
  [[nodiscard]] bool write(const std::string& module, std::int32_t level, std::string_view tag, std::string_view text);

  // Tells the losses where lines can be written again, even if no module has more to say.
  void tell_losses();

 private:
  struct Log {
    Log(std::filesystem::path path, const LogLimits& limits) : file(std::move(path), limits) {}
    LogFile file;
    std::uint64_t lost = 0;
  };
  using Clock = std::chrono::steady_clock;

  void find_files();
  Log* log_of(const std::string& module);
  void forget_removed();
  static bool append(Log& log, const std::string& line);

  std::filesystem::path directory_;
  LogLimits limits_;
  std::map<std::string, Log> logs_;  // by the name of the file
  Log shared_;
  Clock::time_point next_look_;  // for places that have become free
};

}  // namespace gateway
