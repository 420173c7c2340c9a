// What the update needs of the file system: paths that lead through no link, copies whose sum is known, and changes
// that outlast a power cut.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "descriptor.h"

namespace gateway::update {

// A SHA-256 sum.
using Sum = std::array<std::uint8_t, 32>;

// "WHAT: " and the text of errno.
[[nodiscard]] std::string error_text(const std::string& what);

// A path that is relative, in its shortest form, and leads nowhere but below: no empty, "." or ".." component, no
// control character, no name that the update gives its own files.
[[nodiscard]] bool is_plain_path(std::string_view path);

// The directory part (empty for none) and the name.
[[nodiscard]] std::pair<std::string, std::string> split_path(const std::string& path);

// Opens a directory. Not valid, with errno set, when it cannot be had or is a link.
[[nodiscard]] Descriptor open_directory(const std::string& path);

// Opens the directory at a plain path below another; an empty path is that one itself. Follows no link on the way.
// Not valid, with errno set, when there is none.
[[nodiscard]] Descriptor open_below(int directory, std::string_view path);

// Opens the regular file at a plain path below a directory for reading, following no link. Not valid, with errno set,
// when there is none; EISDIR or ELOOP among others when it is something else.
[[nodiscard]] Descriptor open_file_below(int directory, const std::string& path);

// Reads `from` to its end into `to`, or nowhere when that is -1. None, with errno set, when reading or writing fails.
[[nodiscard]] std::optional<Sum> copy_and_sum(int from, int to);

// The whole of a file of at most `limit` bytes. None, with errno set, when it cannot be read or is larger (EFBIG).
[[nodiscard]] std::optional<std::string> read_file(int file, std::size_t limit);

// Replaces the file in one step, safe from a power cut. False, with errno set, when that fails; the file is then as
// it was.
[[nodiscard]] bool replace_file(const std::string& path, std::string_view text, mode_t mode);

}  // namespace gateway::update
