// The micro-benchmarks: parts of the daemon that are called over and over.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Micro {

struct Call {
  std::function<void()> run{};
  std::function<void()> before{};  // what each call needs and is not timed; none for most
};

struct Case {
  std::string name;
  int counted_calls = 0;            // how many calls the counting of instructions makes: 1 where something is before
  std::function<Call()> prepare{};  // makes what is needed and gives the call; what it made lives as long as that call
};
using Cases = std::vector<Case>;

// Each gives the cases of one file. The files and directories of the daemon, below /quorvane/run, have to be private.
// Context: main thread, before there is any other.
[[nodiscard]] Cases log_cases();
[[nodiscard]] Cases parse_cases();
[[nodiscard]] Cases process_cases();
[[nodiscard]] Cases report_cases();
[[nodiscard]] Cases supervision_cases();

}  // namespace Micro
