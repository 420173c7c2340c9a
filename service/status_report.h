// The status report's lines.
#pragma once

#include <string>

#include "service_record.h"

namespace Tessaro::Iot::Component {

// The report line of one record, with its newline, cut at 1022 bytes.
// Context: any thread.
[[nodiscard]] std::string status_line(ServiceRecord& record);

}  // namespace Tessaro::Iot::Component
