#include "platform/time.h"

#include "platform/sys/clock.h"

namespace Tessaro::Iot::Component {

int64_t CTime::getSystemStartupMilliSecond() noexcept { return sys::monotonic_ms(); }

}  // namespace Tessaro::Iot::Component
