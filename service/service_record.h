// One service of the catalogue and its run-time state.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>

#include "platform/process_host.h"
#include "platform/semaphore.h"

namespace Tessaro::Iot::Component {

// What `status` holds.
constexpr int32_t status_stopped = -1;  // never started, or stopped
constexpr int32_t status_started = 0;
constexpr int32_t status_abnormal = 1;  // its process ended unexpectedly

struct ServiceRecord {
  int32_t status = status_stopped;  // guarded by `lock`
  CSemaphore ready{0};              // posted when the service takes its bus name
  uint32_t start_time = 0;          // seconds since system start-up at the last start; guarded by `lock`
  std::string exec;                 // program relative to the working directory, and the service's name
  std::list<std::string> args;
  std::string dbus_name;
  int32_t monitor = 0;                       // not 0: supervised and listed
  double delay = 0.0;                        // seconds
  std::map<std::string, int32_t> keepalive;  // item to deadline in seconds since system start-up, 0: none;
                                             // guarded by `lock`
  int32_t pid = 0;                           // guarded by `lock`
  ProcessRef process;                        // the process that `pid` names; guarded by `lock`

  // Held only for the fields above, never while waiting for anything.
  std::mutex lock;
};

}  // namespace Tessaro::Iot::Component
