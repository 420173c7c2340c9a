// What the command line asks for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessaro::Iot::Quorvaned {

enum class Mode { stop_all, stop_except_remotedebug, status, error, start };

// The mode of an argument vector: whole words, exact and case-sensitive.
// Context: any.
[[nodiscard]] Mode mode_of(int32_t argc, const char* const* argv) noexcept;

// The strings that the start-up controller is given: gateway identity (product key, device name, device secret),
// access server (host, port, certificate version), remote access (host, port, tls type).
constexpr size_t service_argument_count = 9;
using ServiceArguments = std::array<std::string, service_argument_count>;

struct StartRequest {
  bool nofork = false;
  int32_t legal_count = 0;  // service arguments, without "--nofork"
  [[nodiscard]] bool is_legal() const noexcept {
    return legal_count == 0 || legal_count == 3 || legal_count == 6 || legal_count == 9;
  }
};

// Counts the arguments of a start.
// Context: any.
[[nodiscard]] StartRequest read_start_request(int32_t argc, const char* const* argv) noexcept;

// Takes the groups of three that a legal request reaches, by fixed position ("--nofork" is meant to come last: placed
// earlier it is taken as one of the strings), and overwrites the device secret in `argv` with "*", so that process
// listings no longer show it.
// Context: main thread.
[[nodiscard]] ServiceArguments take_service_arguments(const StartRequest& request, int32_t argc, char** argv);

}  // namespace Tessaro::Iot::Quorvaned
