// One line of either log.
#include "cases.h"
#include "platform/log.h"
#include "startup_log.h"

namespace Micro {

using namespace Tessaro::Iot::Component;

Cases log_cases() {
  constexpr int calls = 200;
  return {{"line of the start-up log", calls,
           [] { return Call{[] { STARTUP_LOG("run %s pid %d", "gateway-service", 4711); }}; }},
          {"line of the log", calls, [] {
             return Call{[] {
               log_print(log_level_info, "color", "tag", __FILE_NAME__, "log_cases", __LINE__, "name:%s, owner:%s",
                         "iot.gateway.service", ":1.42");
             }};
           }}};
}

}  // namespace Micro
