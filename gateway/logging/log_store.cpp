#include "log_store.h"

#include <iterator>
#include <system_error>
#include <utility>

#include "log_line.h"
#include "module_file.h"

namespace gateway {
namespace {

constexpr const char* own_tag = "logging-service";
constexpr std::int32_t failure = 2;
constexpr std::chrono::seconds look_interval{1};

std::string loss_line(std::uint64_t lost) {
  const std::string text = std::to_string(lost) + (lost == 1 ? " line was lost" : " lines were lost");
  return format_line(std::chrono::system_clock::now(), nullptr, failure, own_tag, text);
}

}  // namespace

LogStore::LogStore(std::filesystem::path directory, const LogLimits& limits)
    : directory_(std::move(directory)), limits_(limits), shared_(directory_ / shared_file, limits) {
  find_files();
}

bool LogStore::write(const std::string& module, std::int32_t level, std::string_view tag, std::string_view text) {
  const auto now = std::chrono::system_clock::now();
  Log* const own = log_of(module);
  if (own != nullptr) return append(*own, format_line(now, nullptr, level, tag, text));
  return append(shared_, format_line(now, &module, level, tag, text));
}

void LogStore::tell_losses() {
  for (auto& [name, log] : logs_) {
    if (log.lost > 0) (void)append(log, "");
  }
  if (shared_.lost > 0) (void)append(shared_, "");
}

// Gives the modules of an earlier run their places.
void LogStore::find_files() {
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory_, error), end; !error && at != end; at.increment(error)) {
    const std::filesystem::path& path = at->path();
    const std::string name = path.filename().string();
    if (path.extension() != ".log" || name == shared_file) continue;
    if (logs_.size() < limits_.modules) logs_.try_emplace(name, path, limits_);
  }
}

// The module's own log; null when there are as many as there may be.
LogStore::Log* LogStore::log_of(const std::string& module) {
  const std::string name = module_file(module);
  const auto found = logs_.find(name);
  if (found != logs_.end()) return &found->second;
  if (logs_.size() >= limits_.modules && Clock::now() >= next_look_) {
    forget_removed();
    next_look_ = Clock::now() + look_interval;
  }
  if (logs_.size() >= limits_.modules) return nullptr;
  return &logs_.try_emplace(name, directory_ / name, limits_).first->second;
}

void LogStore::forget_removed() {
  for (auto at = logs_.begin(); at != logs_.end();) {
    std::error_code error;
    const bool there =
        std::filesystem::symlink_status(directory_ / at->first, error).type() != std::filesystem::file_type::not_found;
    if (!there) shared_.lost += at->second.lost;  // nobody else is left to tell it
    at = there ? std::next(at) : logs_.erase(at);
  }
}

// An empty line stands for the count of the lost ones alone.
bool LogStore::append(Log& log, const std::string& line) {
  const bool written = log.file.append(log.lost > 0 ? loss_line(log.lost) + line : line);
  if (written) {
    log.lost = 0;
  } else if (!line.empty()) {
    ++log.lost;
  }
  return written;
}

}  // namespace gateway
