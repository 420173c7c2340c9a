#include "report.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include "descriptor.h"
#include "local_time.h"
#include "names.h"
#include "service.h"

namespace gateway::update {
namespace {

constexpr off_t log_limit = off_t{128} * 1024;
constexpr std::string_view final_words[] = {"done", "refused", "rolled-back", "failed"};

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
  std::filesystem::create_directories(std::filesystem::path(log_file).parent_path(), ignored);
  struct stat status {};
  if (::stat(log_file, &status) == 0 && status.st_size > log_limit) {
    (void)std::rename(log_file, (std::string(log_file) + ".1").c_str());
  }
  const Descriptor log(::open(log_file, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
  const std::string line = local_time_ms(std::chrono::system_clock::now()) + " " + one_line(text) + "\n";
  if (log.valid()) (void)write_all(log.get(), line);
}

bool is_state_final() {
  std::ifstream file(state_file);
  std::string word;
  file >> word;
  return std::find(std::begin(final_words), std::end(final_words), word) != std::end(final_words);
}

}  // namespace gateway::update
