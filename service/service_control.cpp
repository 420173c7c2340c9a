#include "service_control.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "install_root.h"
#include "paths.h"
#include "platform/config_agent.h"
#include "platform/dir.h"
#include "platform/file.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/time.h"
#include "startup_log.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr mode_t mode_bits = 07777;
constexpr mode_t bus_directory_mode = 0755;
constexpr mode_t closed_directory_mode = 0700;
constexpr mode_t bus_socket_mode = 0600;
constexpr int32_t config_timeout_ms = 3000;
constexpr int32_t lowest_signalled_pid = 2;  // 0 is the own process group, 1 is init

constexpr const char* scene = "scene";

// These two are left running when the daemon dies: an update or a remote session must not end with it.
bool outlives_daemon(std::string_view process_name) {
  return process_name == "fota" || process_name == "RemoteTerminalDaemon";
}

CSpawnPlan common_plan(const std::string& exec, const std::list<std::string>& args) {
  CSpawnPlan plan;
  const std::string process_name(Text::base_name(exec));
  plan.program = "./" + exec;
  plan.add_argument(process_name);
  for (const std::string& argument : args) plan.add_argument(argument);
  plan.parent_death_signal = outlives_daemon(process_name) ? 0 : SIGKILL;
  return plan;
}

}  // namespace

// The scene service is deliberately asymmetric: started as "scene" it has a special starter and the common stop;
// started through its script, the common start and a special stop.
CServiceControl::CServiceControl(CDBusChannel* channel, CConfigAgent* agent)
    : start_handlers{{"dbus-daemon", [this](ServiceRecord* record) { return start_dbus_daemon(record); }},
                     {"nginx", [this](ServiceRecord* record) { return start_ngnix_service(record); }},
                     {scene, [this](ServiceRecord* record) { return start_scene_service(record); }}},
      stop_handlers{{"dbus-daemon", [this](ServiceRecord* record, bool force) { stop_dbus_daemon(record, force); }},
                    {"startSC.sh", [this](ServiceRecord* record, bool force) { stop_scene_service(record, force); }}},
      watchdog_channel(channel),
      config_agent(agent) {
  (void)watchdog_channel;  // handed over by the manager, no operation needs it
}

void CServiceControl::start_service(ServiceRecord* record) {
  {
    const std::lock_guard guard(record->lock);
    record->status = status_started;
    record->keepalive.clear();
    record->start_time = static_cast<uint32_t>(CTime::getSystemStartupMilliSecond() / 1000);
  }
  // Not stored here: the main thread has stored the pid before it could notice the child's death, and a second store
  // would put a dead pid over the 0 that the death has left.
  const auto special = start_handlers.find(record->exec);
  if (special != start_handlers.end() && special->second) {
    (void)special->second(record);
  } else {
    (void)start_common_service(record);
  }
}

bool CServiceControl::start_can_wait(const ServiceRecord* record) const { return record->exec == scene; }

void CServiceControl::stop_service(ServiceRecord* record, bool force) {
  {
    const std::lock_guard guard(record->lock);
    record->status = status_stopped;
    record->keepalive.clear();
  }
  const auto special = stop_handlers.find(record->exec);
  if (special != stop_handlers.end() && special->second) {
    special->second(record, force);
  } else {
    (void)kill_service(record, force);  // a process that has gone is as good as stopped
  }
  const std::lock_guard guard(record->lock);
  CProcessHost::instance().forget(record->process);
  record->status = status_stopped;  // again: its death may have been noticed meanwhile
  record->process = ProcessRef{};
  record->pid = 0;
}

int32_t CServiceControl::start_common_service(ServiceRecord* record) {
  return start_process(record, common_plan(record->exec, record->args)).pid;
}

ProcessRef CServiceControl::start_process(ServiceRecord* record, const CSpawnPlan& plan) {
  const auto store = [record, &plan](ProcessRef process) {
    {
      const std::lock_guard guard(record->lock);
      CProcessHost::instance().forget(record->process);
      record->status = status_started;  // again: an earlier process may have ended since start_service stored it
      record->process = process;
      record->pid = process.pid;
    }
    if (process.pid > 0) STARTUP_LOG("run %s pid %d", plan.arguments.front().c_str(), process.pid);
  };
  return CProcessHost::instance().spawn(plan, store);
}

int32_t CServiceControl::kill_service(ServiceRecord* record, bool force) {
  int32_t pid = 0;
  ProcessRef process;
  {
    const std::lock_guard guard(record->lock);
    pid = record->pid;
    process = record->process;
  }
  if (pid < lowest_signalled_pid) return pid;
  const int32_t signal_number = force ? SIGKILL : SIGTERM;
  STARTUP_LOG("kill -%d %s(%d)", signal_number, record->exec.c_str(), pid);
  return CProcessHost::instance().signal(process, signal_number);
}

void CServiceControl::store_dbus_daemon(ProcessRef process) {
  const std::lock_guard guard(lock);
  dbus_daemon_process = process;
  dbus_daemon_pid = process.pid;
}

ProcessRef CServiceControl::take_dbus_daemon() {
  const std::lock_guard guard(lock);
  dbus_daemon_pid = -1;
  return std::exchange(dbus_daemon_process, ProcessRef{});
}

int32_t CServiceControl::start_dbus_daemon(ServiceRecord* record) {
  const ProcessRef earlier = take_dbus_daemon();
  if (earlier.pid > 0) {
    STARTUP_LOG("start dbus-daemon, kill -%d %d", SIGTERM, earlier.pid);
    (void)CProcessHost::instance().signal(earlier, SIGTERM);  // gone already: so much the better
  }
  // Any local user could have prepared the path below /tmp. An ordinary user may be unable to move it aside: then the
  // bus does not come up, or is refused as another user's when the channels connect.
  (void)CDir::make_trusted(Paths::bus_directory_base, Paths::bus_directory, bus_directory_mode);
  close_bus_directory();
  if (CFile::isFile(Paths::bus_pid_file)) (void)CFile::remove(Paths::bus_pid_file);
  // A bus daemon that still listens here belongs to an earlier image of this process; the services would find the new
  // one and this daemon the old one.
  (void)CFile::remove(Paths::bus_socket);
  const ProcessRef started = start_process(record, common_plan(record->exec, record->args));
  store_dbus_daemon(started);
  return started.pid;
}

// The bus daemon makes its socket for everybody. It lets in nobody but root and its own user, but whoever connects
// takes the place of one who waits to be let in.
void CServiceControl::close_bus_directory() {
  struct stat found {};
  if (::stat(Paths::bus_directory, &found) != 0 || (found.st_mode & mode_bits) != bus_directory_mode) return;
  bus_directory_closed = ::chmod(Paths::bus_directory, closed_directory_mode) == 0;
}

void CServiceControl::open_bus_directory() {
  (void)::chmod(Paths::bus_socket, bus_socket_mode);
  if (bus_directory_closed) (void)::chmod(Paths::bus_directory, bus_directory_mode);
  bus_directory_closed = false;
}

// Always SIGTERM, whatever `force` says: the bus daemon is given the chance to leave in order.
void CServiceControl::stop_dbus_daemon(ServiceRecord* /*record*/, bool /*force*/) {
  const ProcessRef running = take_dbus_daemon();
  if (running.pid < 1) return;
  STARTUP_LOG("stop dbus-daemon, kill -%d %d", SIGTERM, running.pid);
  (void)CProcessHost::instance().signal(running, SIGTERM);
}

int32_t CServiceControl::start_ngnix_service(ServiceRecord* record) {
  constexpr size_t directory_position = 2;  // in the argument vector, behind "nginx" and the first argument
  CSpawnPlan plan;
  plan.program = "../../openresty/nginx/sbin/nginx";
  plan.add_argument("nginx");
  for (const std::string& argument : record->args) plan.add_argument(argument);
  if (record->args.size() > 1) {
    plan.working_directory = *std::next(record->args.begin());
    plan.arguments[directory_position] = "./";
    log_print(log_level_info, "color", "tag", __FILE_NAME__, "start_ngnix_service", __LINE__, "cwd:%s",
              plan.working_directory.c_str());
  }
  const char* const old_path = std::getenv("LD_LIBRARY_PATH");
  log_print(log_level_info, "color", "tag", __FILE_NAME__, "start_ngnix_service", __LINE__, "old_ld_lib_path:%s",
            old_path != nullptr ? old_path : "null");
  const std::string library_path = get_install_root() + "/lib";
  log_print(log_level_info, "color", "tag", __FILE_NAME__, "start_ngnix_service", __LINE__, "nginx_lib_path:%s",
            library_path.c_str());
  plan.environment_entry =
      "LD_LIBRARY_PATH=" + (old_path != nullptr ? std::string(old_path) + ":" : std::string()) + library_path;
  log_print(log_level_info, "color", "tag", __FILE_NAME__, "start_ngnix_service", __LINE__, "new_ld_lib_path:%s",
            plan.environment_entry.c_str());
  plan.parent_death_signal = SIGTERM;  // unlike all others: the web server is to close its connections
  return start_process(record, plan).pid;
}

int32_t CServiceControl::start_scene_service(ServiceRecord* record) {
  // Read anew at every start, so that a restart picks up a changed switch. A failed read leaves it off.
  std::string ha_switch;
  (void)config_agent->get_config("gw_ha_service_switch", ha_switch, config_timeout_ms);
  CSpawnPlan plan = common_plan(scene, record->args);
  plan.add_argument(ha_switch == "on" ? "-level=1" : "-level=0");
  return start_process(record, plan).pid;
}

// Stopping is wholly the script's business: nothing is signalled here and nothing waits.
void CServiceControl::stop_scene_service(ServiceRecord* /*record*/, bool /*force*/) {
  ServiceRecord script;
  script.exec = "stopSC.sh";
  const ProcessRef started = start_process(&script, common_plan(script.exec, script.args));
  const std::lock_guard guard(lock);
  stop_script = started;
}

void CServiceControl::wait_for_stop_script(int64_t timeout_ms) {
  ProcessRef script;
  {
    const std::lock_guard guard(lock);
    script = stop_script;
  }
  CProcessHost::instance().wait_until_ended(script, timeout_ms);
}

}  // namespace Tessaro::Iot::Component
