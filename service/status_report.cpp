#include "status_report.h"

#include <string>

namespace Tessaro::Iot::Component {

std::string status_line(ServiceRecord& record) {
  constexpr size_t limit = 1023;
  constexpr size_t usual_line = 128;
  int32_t status = 0;
  int32_t pid = 0;
  {
    const std::lock_guard guard(record.lock);
    status = record.status;
    pid = record.pid;
  }
  // Not printf: a report of a thousand lines is asked for while everybody waits.
  std::string line;
  line.reserve(usual_line);
  line.append(status == status_started ? "[  \033[32m+" : "[  \033[0;31m-").append("\033[0m  ]  Service ");
  line.append(record.exec, 0, record.exec.find('\0'));  // as far as "%s" would show it
  if (status != status_started) {
    line += " is \033[0;31minactive\033[0m\n";
  } else if (record.exec == "startSC.sh") {
    line += " is \033[32mactive\033[0m\n";
  } else {
    line.append(" is \033[32mactive\033[0m, pid is ").append(std::to_string(pid)) += '\n';
  }
  if (line.size() >= limit) line.resize(limit - 1);
  return line;
}

}  // namespace Tessaro::Iot::Component
