// What a child does between fork and exec, prepared by the parent: the child only reads it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tessaro::Iot::Component {

struct CSpawnPlan {
  // Longest argument that reaches a program, in bytes; a longer one is cut.
  static constexpr size_t max_argument_length = 255;

  std::string program;                 // handed to execvp; always holds a "/", so no search path is consulted
  std::vector<std::string> arguments;  // the whole argument vector, element 0 included
  int32_t parent_death_signal = 0;     // sent to the child when the daemon dies; 0: the child outlives the daemon
  bool discard_output = true;          // standard output and standard error go to /dev/null
  std::string working_directory;       // entered before the exec; empty: stay
  std::string environment_entry;       // "NAME=value" put into the child's environment; empty: none
  mode_t extra_umask = 0;              // permission bits added to the inherited umask

  // Appends an argument, cut at max_argument_length and at an embedded NUL, as the C vector would be.
  void add_argument(const std::string& argument);
};

}  // namespace Tessaro::Iot::Component
