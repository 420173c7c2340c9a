#include "status_report.h"

#include <cstdio>

namespace Tessaro::Iot::Component {

std::string status_line(ServiceRecord& record) {
  constexpr size_t limit = 1023;
  int32_t status = 0;
  int32_t pid = 0;
  {
    const std::lock_guard guard(record.lock);
    status = record.status;
    pid = record.pid;
  }
  const char* const name = record.exec.c_str();
  char line[limit + 1] = {};
  if (status != status_started) {
    (void)std::snprintf(line, limit, "[  \033[0;31m-\033[0m  ]  Service %s is \033[0;31minactive\033[0m\n", name);
  } else if (record.exec == "startSC.sh") {
    (void)std::snprintf(line, limit, "[  \033[32m+\033[0m  ]  Service %s is \033[32mactive\033[0m\n", name);
  } else {
    (void)std::snprintf(line, limit, "[  \033[32m+\033[0m  ]  Service %s is \033[32mactive\033[0m, pid is %d\n", name,
                        pid);
  }
  return line;
}

}  // namespace Tessaro::Iot::Component
