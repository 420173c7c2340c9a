#include "manifest.h"

#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <system_error>

namespace gateway::update {
namespace {

constexpr std::size_t longest_list = std::size_t{4} * 1024 * 1024;
constexpr std::size_t sum_digits = 2 * sizeof(Sum);

std::optional<Sum> parse_sum(std::string_view digits) {
  Sum sum{};
  std::size_t size = 0;
  const int result = sodium_hex2bin(sum.data(), sum.size(), digits.data(), digits.size(), nullptr, &size, nullptr);
  return result == 0 && size == sum.size() ? std::optional(sum) : std::nullopt;
}

// SUM, a blank, a blank or an asterisk, PATH.
std::optional<Entry> parse_line(std::string_view line) {
  if (line.size() <= sum_digits + 2 || line[sum_digits] != ' ') return std::nullopt;
  if (line[sum_digits + 1] != ' ' && line[sum_digits + 1] != '*') return std::nullopt;
  const auto sum = parse_sum(line.substr(0, sum_digits));
  if (!sum) return std::nullopt;
  std::string_view path = line.substr(sum_digits + 2);
  // What "find ." gives to sha256sum begins like that.
  if (path.starts_with("./")) path.remove_prefix(2);
  return Entry{std::string(path), *sum};
}

// Names come from outside and end up in the one line of the state.
std::string shown(std::string_view path) {
  std::string text(path.substr(0, 200));
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\177') c = '?';
  }
  return text;
}

bool is_right(int directory, const Entry& entry, std::string& problem) {
  const Descriptor file = open_file_below(directory, entry.path);
  if (!file.valid()) {
    problem = error_text(entry.path);
    return false;
  }
  const auto sum = copy_and_sum(file.get(), -1);
  if (!sum) {
    problem = error_text(entry.path);
    return false;
  }
  if (*sum != entry.sum) problem = entry.path + ": the sum is wrong";
  return *sum == entry.sum;
}

bool holds_nothing_else(const std::string& directory, const std::vector<Entry>& entries, std::string& problem) {
  namespace fs = std::filesystem;
  std::set<std::string, std::less<>> listed{sums_name};
  for (const Entry& entry : entries) listed.insert(entry.path);
  std::error_code error;
  for (fs::recursive_directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
    if (at->symlink_status(error).type() == fs::file_type::directory) continue;
    const std::string path = at->path().string().substr(directory.size() + 1);
    if (listed.contains(path)) continue;
    problem = shown(path) + ": it is not listed";
    return false;
  }
  if (error) problem = directory + ": " + error.message();
  return !error;
}

}  // namespace

std::optional<std::vector<Entry>> parse_sums(std::string_view text, std::string& problem) {
  std::vector<Entry> entries;
  std::set<std::string, std::less<>> paths;
  const auto refuse = [&](const std::string& what) {
    problem = std::string(sums_name) + ", line " + std::to_string(entries.size() + 1) + ": " + what;
    return std::nullopt;
  };
  while (!text.empty()) {
    const auto end = text.find('\n');
    // A list without its last newline has been cut off.
    if (end == std::string_view::npos) return refuse("the line has no end");
    const auto entry = parse_line(text.substr(0, end));
    if (!entry) return refuse("this is no sum and path");
    if (!is_plain_path(entry->path)) return refuse("the path " + shown(entry->path) + " cannot be installed");
    if (!paths.insert(entry->path).second) return refuse(entry->path + " comes twice");
    entries.push_back(*entry);
    text.remove_prefix(end + 1);
  }
  if (entries.empty()) return refuse("there is nothing to install");
  return entries;
}

std::optional<std::vector<Entry>> verify(const std::string& directory, std::string& problem) {
  const Descriptor top = open_directory(directory);
  struct stat status {};
  if (!top.valid() || ::fstat(top.get(), &status) != 0) {
    problem = error_text(directory);
    return std::nullopt;
  }
  if (status.st_uid != ::geteuid() && status.st_uid != 0) {
    problem = directory + " belongs to another user";
    return std::nullopt;
  }
  const Descriptor list = open_file_below(top.get(), sums_name);
  const auto text = list.valid() ? read_file(list.get(), longest_list) : std::nullopt;
  if (!text) {
    problem = error_text(sums_name);
    return std::nullopt;
  }
  auto entries = parse_sums(*text, problem);
  if (!entries) return std::nullopt;
  for (const Entry& entry : *entries) {
    if (!is_right(top.get(), entry, problem)) return std::nullopt;
  }
  if (!holds_nothing_else(directory, *entries, problem)) return std::nullopt;
  return entries;
}

}  // namespace gateway::update
