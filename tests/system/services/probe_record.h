// The event file of a probe: what a test reads to learn what happened to a service.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace probe {

/// One JSON object under construction.
class Record {
 public:
  /// Starts a record of the given kind, stamped with the process, the monotonic clock and the wall clock.
  explicit Record(std::string_view event);

  /// Adds a member. Bytes that are not printable ASCII are written as \u00XX, so that any argument survives.
  Record& text(std::string_view key, std::string_view value);
  Record& number(std::string_view key, long long value);
  Record& list(std::string_view key, const std::vector<std::string>& values);

  /// Appends the record to the event file with one write, so that records of several processes never mix.
  void write();

 private:
  std::string _body;
};

/// Chooses the event file: "probe/<name>.jsonl" in the nearest directory above the executable that has a
/// directory "probe". With no such directory nothing is recorded.
void open_event_file(std::string_view name);

/// The last part of a path.
std::string base_name(std::string_view path);

/// The value of a link, without an end mark; empty when it cannot be read.
std::string read_link(const std::string& path);

}  // namespace probe
