#include "report.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include "files.h"
#include "service.h"

namespace gateway::update {
namespace {

constexpr const char* state_path = "/quorvane/run/fota/state";
constexpr const char* log_directory = "/quorvane/run/logger";
constexpr const char* log_path = "/quorvane/run/logger/fota.log";
constexpr const char* old_log_path = "/quorvane/run/logger/fota.log.1";
constexpr off_t log_limit = off_t{128} * 1024;
constexpr std::string_view final_words[] = {"done", "refused", "rolled-back", "failed"};

std::string time_stamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now - std::chrono::system_clock::from_time_t(seconds));
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char text[64];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + size, sizeof text - size, ".%03d", static_cast<int>(milliseconds.count()));
  return text;
}

std::string one_line(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\177'; }, '?');
  return text;
}

}  // namespace

void report_state(const std::string& word, const std::string& reason) {
  const std::string line = one_line(reason.empty() ? word : word + " " + reason);
  (void)write_state("fota", line + "\n");
  report_note(line);
}

void report_note(const std::string& text) {
  std::error_code ignored;
  std::filesystem::create_directories(log_directory, ignored);
  struct stat status {};
  if (::stat(log_path, &status) == 0 && status.st_size > log_limit) (void)std::rename(log_path, old_log_path);
  const Descriptor log(::open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (log.valid()) (void)write_file(log.get(), time_stamp() + " " + one_line(text) + "\n");
}

bool is_state_final() {
  std::ifstream file(state_path);
  std::string word;
  file >> word;
  return std::find(std::begin(final_words), std::end(final_words), word) != std::end(final_words);
}

}  // namespace gateway::update
