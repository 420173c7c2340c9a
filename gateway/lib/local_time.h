// The time as the gateway's logs and states show it: in its own time zone.
#pragma once

#include <chrono>
#include <string>

namespace gateway {

// "2024-05-31 23:59:59".
[[nodiscard]] std::string local_time(std::chrono::system_clock::time_point time);

// "2024-05-31 23:59:59.999".
[[nodiscard]] std::string local_time_ms(std::chrono::system_clock::time_point time);

}  // namespace gateway
