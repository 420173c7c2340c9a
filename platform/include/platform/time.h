// Time since system start-up.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Component {

class CTime {
 public:
  // Milliseconds since system start-up (monotonic clock).
  // Context: any, including signal handlers.
  [[nodiscard]] static int64_t getSystemStartupMilliSecond() noexcept;
};

}  // namespace Tessaro::Iot::Component
