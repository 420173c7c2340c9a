// The supervision core: the service table, the start order, the monitor and the keep-alives.
//
// A record's states, and who moves it (the log line that goes with it):
//
//   stopped (-1)  --start_service-->  started (0)      any starter          "run %s pid %d"
//   started (0)   --process_exit-->   abnormal (1)     main thread          "process_exit, service(%s) is abnormal"
//   abnormal (1), or started with an expired keep-alive, once 30 s have passed since the start:
//                 --stop, start-->    started (0)      monitor thread       "threadProc, service(%s) status(%d) is ..."
//   any           --stop_service-->   stopped (-1)     controller, monitor, "kill -%d %s(%d)"
//                                                      forced exit
//
// The manager's life: init_environment once; then in each cycle of the controller run_dbus_daemon, run_services,
// start_monitor, ..., stop_monitor, stop_services, stop_dbus_daemon. The table's shape is fixed once it is loaded; the
// fields of a record that change are guarded by the record's lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "catalogue.h"
#include "platform/function.h"
#include "platform/thread.h"
#include "service_control.h"

namespace Tessaro::Iot::Component {

class CConfigAgent;
class CDBusChannel;

class CServiceManager : public CThread {
 public:
  // `watchdog_channel` is handed on to service control. `progress_fd` receives the progress lines while it is greater
  // than 0, and is closed by start_monitor. `is_running` ends every loop of the manager when it returns false; an empty
  // one counts as true. `config_agent` is not owned. The thread is not started here.
  // Context: main thread.
  CServiceManager(CDBusChannel* watchdog_channel, int32_t progress_fd, TFunction0<bool> is_running,
                  CConfigAgent* config_agent);
  ~CServiceManager() override;

  // Reads the catalogue, prepares the run-time tree, takes the pid file (stopping an older instance) and runs the
  // key-chain tool. Returns 1 when the environment is ready, 0 when the catalogue could not be loaded.
  // Context: main thread, before the controller's thread exists.
  [[nodiscard]] int32_t init_environment();

  // Reads "../config/services.json" into the table, once: a table that is not empty is kept.
  // Returns 1 when the table holds the catalogue, 0 when it could not be read.
  // Context: main thread.
  [[nodiscard]] int32_t load_services();

  // Start and stop the private bus daemon.
  // Context: controller thread; the stop also in the main thread's forced exit.
  void run_dbus_daemon();
  void stop_dbus_daemon();

  // To be called once the bus daemon has answered: until then its directory is closed to other users.
  // Context: controller thread.
  void open_bus_directory();

  // Starts every service in table order, each waited for by its bus name (5 s at most) or its delay.
  // Context: controller thread; the main thread starts those that are not waited for, meanwhile.
  void run_services();

  // Closes the progress descriptor, so that the launcher sees the end, and starts the monitor.
  // Returns true when the thread was created.
  // Context: controller thread.
  [[nodiscard]] bool start_monitor();
  void stop_monitor();

  // Stops the services in reverse order, without waiting for them: all but "fota", and but "RemoteTerminalDaemon" when
  // `keep_remote_debug` is 1. `force` 1 asks for SIGKILL.
  // Context: controller thread, the main thread's forced exit.
  void stop_services(int32_t force, int32_t keep_remote_debug);

  // Gives a stop script that stop_services has started up to a second.
  // Context: the main thread's forced exit.
  void wait_for_stop_script();

  // Tells of a child that has ended and is not reaped yet.
  // Context: main thread.
  void process_exit(int32_t pid);

  // False when one of the record's keep-alive deadlines has passed at second `now`.
  // Context: monitor thread.
  [[nodiscard]] bool check_keepalive(int32_t now, ServiceRecord* record);

  // Records that `key` of the service with `dbus_name` is to be fed again within `timeout_s` seconds; less than 1 ends
  // the watch of that key. An unknown or empty name changes nothing, nor does a new key of more than 1024 bytes or
  // beyond 16384 of a service.
  // Context: dispatch thread.
  void feed_dog(const std::string& dbus_name, const std::string& key, int32_t timeout_s);

  // Tells that a bus name has changed its owner.
  // Context: dispatch thread.
  void service_online(const std::string& dbus_name);

  // True when the high-availability switch is to be on. Reads the configuration, up to 3 s per key.
  // Context: dispatch thread.
  [[nodiscard]] bool is_ha_service_switch_on();

  // Appends the status report to `out`; nothing while the controller is not running.
  // Context: dispatch thread.
  void get_status(std::string& out);

  // Sends a progress line to the launcher, while it listens, and to the start-up log.
  // Context: main thread, controller thread.
  void print_progress(const std::string& progress);

 protected:
  // The monitor: every second each supervised service that is abnormal or silent is stopped and started again.
  int32_t threadProc() override;

 private:
  [[nodiscard]] bool still_running() const;
  [[nodiscard]] bool is_due(ServiceRecord* record, uint32_t now, int32_t& status);
  void wait_for_start(ServiceRecord* record);
  void make_directories();
  void replace_old_instance();
  void init_key_chain();
  ServiceRecord* find_by_bus_name(const std::string& dbus_name);
  void mark_abnormal(ServiceRecord* record, ProcessRef ended);
  bool adopt_remote_terminal(ServiceRecord* record, ProcessRef ended);

  std::atomic<int32_t> progress_fd;
  ServiceTable services;
  std::unique_ptr<CServiceControl> service_control;
  TFunction0<bool> is_running;
  CConfigAgent* config_agent;

  friend class ServiceManagerProbe;  // the unit tests look at the table
};

}  // namespace Tessaro::Iot::Component
