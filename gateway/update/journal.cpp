#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "files.h"

namespace gateway::update {
namespace {

constexpr std::size_t longest_journal = std::size_t{16} * 1024 * 1024;
constexpr mode_t journal_mode = 0644;

// The first line. All are of one length, so that one is written over the other, within one sector of the disk.
constexpr std::array<std::pair<Phase, std::string_view>, 4> phase_lines{{{Phase::staged, "phase staged  \n"},
                                                                         {Phase::swapping, "phase swapping\n"},
                                                                         {Phase::swapped, "phase swapped \n"},
                                                                         {Phase::done, "phase done    \n"}}};
constexpr std::size_t phase_line_size = phase_lines[0].second.size();

constexpr std::string_view root_label = "root ";
constexpr std::string_view directory_label = "directory ";
constexpr std::string_view added_label = "added ";
constexpr std::string_view replaced_label = "replaced ";
constexpr std::string_view end_line = "end";

std::string_view line_of(Phase phase) {
  for (const auto& [known, line] : phase_lines) {
    if (known == phase) return line;
  }
  return {};
}

std::string format(const Plan& plan) {
  std::string text(line_of(Phase::staged));
  const auto add = [&text](std::string_view label, const std::string& value) {
    text.append(label).append(value) += '\n';
  };
  add(root_label, plan.root);
  for (const std::string& directory : plan.directories) add(directory_label, directory);
  for (const Change& change : plan.changes) add(change.replaces ? replaced_label : added_label, change.path);
  return text.append(end_line) += '\n';
}

bool take(std::string_view& line, std::string_view label) {
  if (!line.starts_with(label)) return false;
  line.remove_prefix(label.size());
  return true;
}

bool parse_line(std::string_view line, Plan& plan) {
  if (take(line, root_label)) {
    plan.root = line;
    return true;
  }
  if (take(line, directory_label)) {
    plan.directories.emplace_back(line);
  } else if (take(line, added_label)) {
    plan.changes.push_back({std::string(line), false});
  } else if (take(line, replaced_label)) {
    plan.changes.push_back({std::string(line), true});
  } else {
    return false;
  }
  return is_plain_path(line);
}

std::optional<Journal::Content> parse(std::string_view text) {
  Journal::Content content{};
  bool known = false;
  for (const auto& [phase, line] : phase_lines) {
    if (!text.starts_with(line)) continue;
    content.phase = phase;
    known = true;
  }
  if (!known) return std::nullopt;
  text.remove_prefix(phase_line_size);
  for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (line == end_line) return text.empty() && !content.plan.root.empty() ? std::optional(content) : std::nullopt;
    if (!parse_line(line, content.plan)) return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

bool Journal::begin(const Plan& plan, std::string& problem) const {
  if (replace_file(path_, format(plan), journal_mode)) return true;
  problem = error_text(path_);
  end();
  return false;
}

bool Journal::reach(Phase phase, std::string& problem) const {
  const Descriptor file(::open(path_.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
  const std::string_view line = line_of(phase);
  if (file.valid() && ::pwrite(file.get(), line.data(), line.size(), 0) == static_cast<ssize_t>(line.size()) &&
      ::fsync(file.get()) == 0) {
    return true;
  }
  problem = error_text(path_);
  return false;
}

void Journal::end() const {
  (void)::unlink(path_.c_str());
  const Descriptor directory = open_directory(split_path(path_).first);
  // Should it come back with a power cut: it says "done", or what it says to undo has been undone already.
  if (directory.valid()) (void)::fsync(directory.get());
}

Journal::State Journal::read(Content& content) const {
  const Descriptor file(::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid()) return errno == ENOENT ? State::missing : State::damaged;
  const auto text = read_file(file.get(), longest_journal);
  auto read = text ? parse(*text) : std::nullopt;
  if (!read) return State::damaged;
  content = std::move(*read);
  return State::whole;
}

void Journal::set_aside() const { (void)::rename(path_.c_str(), (path_ + ".damaged").c_str()); }

}  // namespace gateway::update
