// What an update brings: the files that its list of sums names.
//
// An update is a directory that holds the new files, laid out as below the install root, and the list SHA256SUMS as
// the program sha256sum writes it. The list and the files must agree: a file that is not listed is as wrong as one that
// is missing, because an update that lost a line must not be installed by halves.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files.h"

namespace gateway::update {

inline constexpr const char* sums_name = "SHA256SUMS";

struct Entry {
  std::string path;  // plain, relative to the install root
  Sum sum;
};

// The entries of a list. None when a line is not well formed, a path is not plain or comes twice, or there is no line;
// `problem` then tells why, in one line.
[[nodiscard]] std::optional<std::vector<Entry>> parse_sums(std::string_view text, std::string& problem);

// Reads the list in the directory and holds the files against it: each is a regular file, reached through no link, with
// the sum that is listed, and there is nothing else but directories. Changes nothing. None when it is not so, or the
// directory belongs to somebody else; `problem` then tells why, in one line.
[[nodiscard]] std::optional<std::vector<Entry>> verify(const std::string& directory, std::string& problem);

}  // namespace gateway::update
