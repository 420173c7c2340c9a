#include "arguments.h"

#include <cstring>
#include <string_view>

namespace Tessaro::Iot::Quorvaned {

namespace {

constexpr std::string_view nofork_word = "--nofork";
constexpr int32_t group_size = 3;
constexpr int32_t secret_position = 3;

}  // namespace

Mode mode_of(int32_t argc, const char* const* argv) noexcept {
  if (argc != 2) return Mode::start;
  const std::string_view word = argv[1];
  if (word == "stop_all") return Mode::stop_all;
  if (word == "stop_except_remotedebug") return Mode::stop_except_remotedebug;
  if (word == "status") return Mode::status;
  return word == nofork_word ? Mode::start : Mode::error;
}

StartRequest read_start_request(int32_t argc, const char* const* argv) noexcept {
  StartRequest request;
  for (int32_t position = 1; position < argc; ++position) {
    if (argv[position] == nofork_word) request.nofork = true;
  }
  request.legal_count = argc - 1 - (request.nofork ? 1 : 0);
  return request;
}

ServiceArguments take_service_arguments(const StartRequest& request, int32_t argc, char** argv) {
  ServiceArguments arguments;
  for (int32_t first = 1; first + group_size - 1 <= request.legal_count; first += group_size) {
    for (int32_t position = first; position < first + group_size && position < argc; ++position) {
      arguments[static_cast<size_t>(position) - 1] = argv[position];
    }
  }
  if (request.legal_count >= group_size) std::memset(argv[secret_position], '*', std::strlen(argv[secret_position]));
  return arguments;
}

}  // namespace Tessaro::Iot::Quorvaned
