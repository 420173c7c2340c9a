#include "local_time.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace gateway {

std::string local_time(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
  std::tm parts{};
  ::localtime_r(&seconds, &parts);
  std::array<char, 40> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string local_time_ms(std::chrono::system_clock::time_point time) {
  using std::chrono::milliseconds;
  const auto rest = std::chrono::duration_cast<milliseconds>(time - std::chrono::floor<std::chrono::seconds>(time));
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(rest.count()));
  return local_time(time) + text.data();
}

}  // namespace gateway
