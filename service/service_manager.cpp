#include "service_manager.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <limits>
#include <utility>
#include <vector>

#include "paths.h"
#include "pid_file.h"
#include "platform/config_agent.h"
#include "platform/dir.h"
#include "platform/log.h"
#include "platform/sys/process.h"
#include "platform/text.h"
#include "platform/time.h"
#include "process_scan.h"
#include "startup_log.h"
#include "status_report.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr int32_t thread_priority = 64;
constexpr int64_t monitor_period_ms = 1000;
constexpr uint32_t restart_grace_s = 30;
constexpr int32_t name_waits = 50;
constexpr int64_t name_wait_ms = 100;
constexpr int64_t delay_step_ms = 100;
constexpr double delay_steps_per_second = 10.0;
constexpr int32_t config_timeout_ms = 3000;
constexpr int32_t old_instance_rechecks = 10;
constexpr int64_t old_instance_recheck_ms = 1000;
constexpr int64_t stop_script_wait_ms = 1000;
constexpr mode_t directory_mode = 0755;
constexpr mode_t key_chain_umask = 027;  // the daemon's own umask is 0, and its log is not for everybody

// Far beyond what a service needs; without a bound one that makes up names would use up the memory.
constexpr size_t most_keepalive_items = 16384;
constexpr size_t longest_keepalive_item = 1024;  // bytes

constexpr const char* remote_terminal = "RemoteTerminalDaemon";

uint32_t now_s() { return static_cast<uint32_t>(CTime::getSystemStartupMilliSecond() / 1000); }

// A delay of any size becomes a count of steps that is defined: a huge one waits practically for ever.
int64_t delay_steps(double delay_s) {
  constexpr double most = 1e15;
  const double steps = delay_s * delay_steps_per_second;
  return steps > 0.0 ? static_cast<int64_t>(std::min(steps, most)) : 0;  // also 0 for what is no number
}

int32_t deadline_after(int32_t timeout_s) {
  const int64_t deadline = static_cast<int64_t>(now_s()) + timeout_s;
  return static_cast<int32_t>(std::min<int64_t>(deadline, std::numeric_limits<int32_t>::max()));
}

}  // namespace

CServiceManager::CServiceManager(CDBusChannel* watchdog_channel, int32_t fd, TFunction0<bool> running,
                                 CConfigAgent* agent)
    : CThread("sevice_manager_thread", policy_fifo, thread_priority, 0),
      progress_fd(fd),
      service_control(std::make_unique<CServiceControl>(watchdog_channel, agent)),
      is_running(std::move(running)),
      config_agent(agent) {}

CServiceManager::~CServiceManager() {
  (void)stopThread();  // the records stay: they live as long as the process
}

bool CServiceManager::still_running() const { return !is_running || is_running(); }

void CServiceManager::print_progress(const std::string& progress) {
  std::string text = progress;
  Text::hide_control_characters(text.data(), text.size());  // a name cannot forge a line on the terminal
  const int32_t fd = progress_fd.load();
  if (fd > 0) {
    (void)!::write(fd, text.data(), text.size());  // the launcher may have left
    (void)!::write(fd, "\n", 1);
  }
  STARTUP_LOG("%s", text.c_str());
}

int32_t CServiceManager::load_services() {
  if (!services.empty()) return 1;
  std::ifstream stream("../config/services.json", std::ios::binary);
  if (!read_catalogue(stream, services)) {
    STARTUP_LOG("can not load service.json");
    return 0;
  }
  return 1;
}

int32_t CServiceManager::init_environment() {
  print_progress("initialize the running environment");
  if (load_services() <= 0) return 0;
  STARTUP_LOG("quorvaned pid:%d, ppid:%d", ::getpid(), ::getppid());
  make_directories();
  replace_old_instance();
  init_key_chain();
  return 1;
}

void CServiceManager::make_directories() {
  for (const char* name : {"", "/console", "/logger", "/startup"}) {
    const std::string path = std::string(Paths::run_root) + name;
    if (CDir::isDir(path)) continue;
    (void)CDir::mkdirs(path, directory_mode);  // whoever needs the directory fails on its own
    STARTUP_LOG("mkdirs %s", path.c_str());
  }
}

void CServiceManager::replace_old_instance() {
  int32_t count = 0;
  int32_t old_pid = lock_pid_file(Paths::pid_file);
  STARTUP_LOG("check old quorvaned, count:%d old_pid:%d", count, old_pid);
  // Whether the old one has gone in the end is not asked, on purpose: a gateway that runs twice is better than none.
  while (old_pid != 0 && count < old_instance_rechecks) {
    if (count == 0 && old_pid >= 1 && old_pid != ::getpid()) {
      STARTUP_LOG("stop old quorvaned, kill -%d %d", SIGUSR1, old_pid);
      (void)sys::send_signal(old_pid, SIGUSR1);  // never a child of ours; it has just shown that it holds the file
    }
    ++count;
    CThread::sleep(old_instance_recheck_ms);
    old_pid = lock_pid_file(Paths::pid_file);
    STARTUP_LOG("check old quorvaned, count:%d old_pid:%d", count, old_pid);
  }
}

void CServiceManager::init_key_chain() {
  const std::string log_directory = std::string(Paths::run_root) + "/startup";
  const std::string command = "./deploy_sst >" + log_directory + "/deploy_sst.log 2>&1";
  CSpawnPlan plan;
  plan.program = "/bin/sh";
  plan.arguments = {"sh", "-c", command};
  plan.discard_output = false;
  plan.parent_death_signal = SIGKILL;
  plan.extra_umask = key_chain_umask;
  CProcessHost::instance().run_to_end(plan);
  STARTUP_LOG("init key-chain, cmd:%s", command.c_str());
}

void CServiceManager::run_dbus_daemon() {
  print_progress("running dbus daemon");
  ServiceRecord record;
  record.exec = "dbus-daemon";
  record.args = {"--nofork", "--config-file=./mbusd.conf", "--print-address"};
  service_control->start_service(&record);
}

void CServiceManager::open_bus_directory() { service_control->open_bus_directory(); }

void CServiceManager::stop_dbus_daemon() {
  ServiceRecord record;
  record.exec = "dbus-daemon";
  service_control->stop_service(&record, false);
}

void CServiceManager::run_services() {
  auto next = services.begin();
  const auto start_next = [&] {
    print_progress("running " + (*next)->exec + " service");
    service_control->start_service(*next);
    return *next++;
  };
  const auto can_go_on = [&] { return next != services.end() && still_running(); };
  const auto needs_no_wait = [&] {
    return (*next)->dbus_name.empty() && delay_steps((*next)->delay) == 0 && !service_control->start_can_wait(*next);
  };
  while (can_go_on()) {
    if (!needs_no_wait()) {
      wait_for_start(start_next());
      continue;
    }
    // A row of those is started by the main thread alone: two changes of thread for each would take longer than the
    // rest.
    CProcessHost::instance().run_steps([&] {
      start_next();
      return can_go_on() && needs_no_wait();
    });
  }
}

void CServiceManager::wait_for_start(ServiceRecord* record) {
  if (record->dbus_name.empty()) {
    const int64_t steps = delay_steps(record->delay);
    for (int64_t step = 0; step < steps && still_running(); ++step) CThread::sleep(delay_step_ms);
    return;
  }
  for (int32_t wait = 0; wait < name_waits && still_running(); ++wait) {
    if (record->ready.pend(name_wait_ms)) return;
  }
}

bool CServiceManager::start_monitor() {
  const int32_t fd = progress_fd.exchange(-1);
  if (fd > 0) (void)::close(fd);
  return createThread();
}

void CServiceManager::stop_monitor() { (void)stopThread(); }

int32_t CServiceManager::threadProc() {
  while (looping() && still_running()) {
    CThread::sleep(monitor_period_ms);
    const uint32_t now = now_s();
    for (ServiceRecord* record : services) {
      if (!still_running() || !looping()) break;
      int32_t status = 0;
      if (!is_due(record, now, status)) continue;
      STARTUP_LOG("threadProc, service(%s) status(%d) is abnormal", record->exec.c_str(), status);
      service_control->stop_service(record, false);
      service_control->start_service(record);
    }
  }
  return 0;
}

// True when the monitor is to restart the record at second `now`; fills the status that it found.
bool CServiceManager::is_due(ServiceRecord* record, uint32_t now, int32_t& status) {
  if (record->monitor == 0) return false;
  uint32_t start_time = 0;
  {
    const std::lock_guard guard(record->lock);
    status = record->status;
    start_time = record->start_time;
  }
  const bool abnormal = status != status_started || !check_keepalive(static_cast<int32_t>(now), record);
  return abnormal && start_time + restart_grace_s < now;
}

bool CServiceManager::check_keepalive(int32_t now, ServiceRecord* record) {
  {
    const std::lock_guard guard(record->lock);
    const auto expired = [now](const auto& item) { return item.second > 0 && item.second < now; };
    if (std::none_of(record->keepalive.begin(), record->keepalive.end(), expired)) return true;
  }
  log_print(log_level_failure, "color", "tag", __FILE_NAME__, "check_keepalive", __LINE__,
            "check_keepalive, services:%s keepalive timeout", record->exec.c_str());
  return false;
}

ServiceRecord* CServiceManager::find_by_bus_name(const std::string& dbus_name) {
  if (dbus_name.empty()) return nullptr;  // or it would match every service that takes no name
  const auto found = std::find_if(services.begin(), services.end(),
                                  [&](const ServiceRecord* record) { return record->dbus_name == dbus_name; });
  return found != services.end() ? *found : nullptr;
}

void CServiceManager::feed_dog(const std::string& dbus_name, const std::string& key, int32_t timeout_s) {
  ServiceRecord* const record = find_by_bus_name(dbus_name);
  if (record == nullptr) return;
  const std::lock_guard guard(record->lock);
  const bool has_room = record->keepalive.size() < most_keepalive_items && key.size() <= longest_keepalive_item;
  if (!has_room && record->keepalive.count(key) == 0) return;
  record->keepalive[key] = timeout_s < 1 ? 0 : deadline_after(timeout_s);
}

void CServiceManager::service_online(const std::string& dbus_name) {
  ServiceRecord* const record = find_by_bus_name(dbus_name);
  if (record != nullptr) record->ready.post();
}

void CServiceManager::process_exit(int32_t pid) {
  STARTUP_LOG("process_exit, pid:%d", pid);
  for (ServiceRecord* record : services) {
    if (!still_running()) return;
    ProcessRef ended;
    {
      // The number alone may be left from a process that ended while nobody was to be told.
      const std::lock_guard guard(record->lock);
      if (record->pid != pid || !CProcessHost::instance().is_current(record->process)) continue;
      ended = record->process;
    }
    if (record->exec == "startSC.sh") return;
    if (record->exec == remote_terminal && adopt_remote_terminal(record, ended)) return;
    mark_abnormal(record, ended);
    return;
  }
}

void CServiceManager::mark_abnormal(ServiceRecord* record, ProcessRef ended) {
  {
    const std::lock_guard guard(record->lock);
    if (record->process != ended) return;  // the monitor or a teardown has stopped it meanwhile
    CProcessHost::instance().forget(record->process);
    record->process = ProcessRef{};
    record->pid = 0;
    record->status = status_abnormal;
  }
  STARTUP_LOG("process_exit, service(%s) is abnormal", record->exec.c_str());
}

// Looks for another running remote terminal and makes it the record's process. Returns false when there is none.
bool CServiceManager::adopt_remote_terminal(ServiceRecord* record, ProcessRef ended) {
  std::vector<int32_t> pids;
  if (!find_processes_by_name(remote_terminal, pids)) return false;
  for (const int32_t pid : pids) {
    UniqueFd handle = open_program(pid, remote_terminal);
    if (!handle.valid()) continue;  // ended since it was found
    const ProcessRef adopted = CProcessHost::instance().adopt(pid, std::move(handle));
    {
      const std::lock_guard guard(record->lock);
      if (record->process != ended) {  // the monitor or a teardown has stopped it meanwhile
        CProcessHost::instance().forget(adopted);
        return true;
      }
      CProcessHost::instance().forget(record->process);
      record->process = adopted;
      record->pid = pid;
    }
    // It says "old pid" and shows the new one: kept as it is, tools match on it.
    STARTUP_LOG("process_exit, service(%s) old pid(%d)", record->exec.c_str(), pid);
    return true;
  }
  return false;
}

void CServiceManager::stop_services(int32_t force, int32_t keep_remote_debug) {
  for (auto record = services.rbegin(); record != services.rend(); ++record) {
    if ((*record)->exec == "fota") continue;
    if ((*record)->exec == remote_terminal && keep_remote_debug == 1) continue;
    service_control->stop_service(*record, force != 0);
  }
}

void CServiceManager::wait_for_stop_script() { service_control->wait_for_stop_script(stop_script_wait_ms); }

bool CServiceManager::is_ha_service_switch_on() {
  const bool deployed = std::any_of(services.begin(), services.end(),
                                    [](const ServiceRecord* record) { return record->exec == "high-availability"; });
  if (!deployed) return false;
  std::string value;
  if (config_agent->get_config("gw_high_availability_deploy", value, config_timeout_ms) == 0 && value.empty()) {
    return true;
  }
  value.clear();
  return config_agent->get_config("gw_ha_switch", value, config_timeout_ms) == 0 && value == "0";
}

void CServiceManager::get_status(std::string& out) {
  constexpr size_t usual_line = 96;
  out.reserve(out.size() + services.size() * usual_line);
  for (ServiceRecord* record : services) {
    if (!still_running()) return;
    if (record->monitor != 0) out += status_line(*record);
  }
}

}  // namespace Tessaro::Iot::Component
