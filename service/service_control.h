// The object through which every process of the catalogue is started and stopped.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "platform/function.h"
#include "platform/process_host.h"
#include "platform/spawn_plan.h"
#include "service_record.h"

namespace Tessaro::Iot::Component {

class CConfigAgent;
class CDBusChannel;

// States of a record as seen here: started (`status` 0, `pid` > 0 or 0 after a failed fork) and stopped (`status` -1,
// `pid` 0). Both operations empty the keep-alive table.
//
// Context of every operation, unless it says otherwise: controller thread, monitor thread, the main thread on behalf of
// the controller, or the main thread's forced exit; no lock of a record may be held.
class CServiceControl {
 public:
  // Neither pointer is owned. `watchdog_channel` is kept and not used here.
  CServiceControl(CDBusChannel* watchdog_channel, CConfigAgent* config_agent);
  ~CServiceControl() = default;
  CServiceControl(const CServiceControl&) = delete;
  CServiceControl& operator=(const CServiceControl&) = delete;

  // Starts the service, by its special starter when its `exec` has one. When it returns, `pid` has been stored by the
  // main thread: 0 after a failed fork, and 0 again when the process has already ended.
  void start_service(ServiceRecord* record);

  // True when start_service may wait for another process's answer, as the scene service's start does: such a start is
  // not for the main thread.
  [[nodiscard]] bool start_can_wait(const ServiceRecord* record) const;

  // Stops the service, by its special stopper when its `exec` has one, else by SIGKILL (`force`) or SIGTERM. It does
  // not wait for the process to end.
  void stop_service(ServiceRecord* record, bool force);

  // Lets everybody into the directory of the bus again, which a start of the bus daemon has closed to other users where
  // it had the usual mode, and keeps the socket to root and the own user. To be called once the bus daemon has
  // answered.
  // Context: controller thread.
  void open_bus_directory();

  // The common start: "./" followed by `exec`, output to /dev/null, killed when the daemon dies (but the two services
  // that are to outlive it). Returns the pid, 0 when the fork failed.
  int32_t start_common_service(ServiceRecord* record);

  // The common stop. Returns the pid when it is less than 2 and nothing was done, else the result of the signal.
  int32_t kill_service(ServiceRecord* record, bool force);

  // Waits up to `timeout_ms` for the last stop script that stop_service has started, so that the end of the process
  // does not kill it before it did anything.
  // Context: the main thread's forced exit.
  void wait_for_stop_script(int64_t timeout_ms);

 private:
  using StartHandler = TFunction1<int32_t, ServiceRecord*>;
  using StopHandler = TFunction2<void, ServiceRecord*, bool>;

  int32_t start_dbus_daemon(ServiceRecord* record);
  void close_bus_directory();
  int32_t start_ngnix_service(ServiceRecord* record);
  int32_t start_scene_service(ServiceRecord* record);
  void stop_dbus_daemon(ServiceRecord* record, bool force);
  void stop_scene_service(ServiceRecord* record, bool force);

  // Forks by `plan` and stores the process in `record`, on the main thread.
  ProcessRef start_process(ServiceRecord* record, const CSpawnPlan& plan);
  void store_dbus_daemon(ProcessRef process);
  // The recorded bus daemon, which is none afterwards.
  ProcessRef take_dbus_daemon();

  std::map<std::string, StartHandler> start_handlers;
  std::map<std::string, StopHandler> stop_handlers;
  CDBusChannel* watchdog_channel;
  CConfigAgent* config_agent;
  std::atomic<bool> bus_directory_closed{false};  // by the last start of the bus daemon

  std::mutex lock;                 // guards the three below
  int32_t dbus_daemon_pid = -1;    // -1: none
  ProcessRef dbus_daemon_process;  // the process that dbus_daemon_pid names
  ProcessRef stop_script;          // the last one started
};

}  // namespace Tessaro::Iot::Component
