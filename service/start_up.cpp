#include "start_up.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "install_root.h"
#include "paths.h"
#include "platform/json_opr.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/time.h"
#include "platform/unique_fd.h"
#include "process_end.h"
#include "runtime_data.h"
#include "startup_log.h"

namespace Tessaro::Iot::Quorvaned {

using namespace Component;

namespace {

constexpr int32_t thread_priority = 64;
constexpr int32_t last_attempt = 30;  // values 0 to 30: 31 attempts, shared by both channels
constexpr int64_t attempt_wait_ms = 500;
constexpr int64_t listen_wait_ms = 100;
constexpr int64_t listen_look_ms = 1;
constexpr int64_t idle_wait_ms = 1000;
constexpr int64_t restart_wait_ms = 1000;
constexpr int64_t normal_exit_wait_ms = 3000;
constexpr int64_t forced_exit_wait_ms = 5000;
constexpr int32_t config_timeout_ms = 3000;
constexpr int32_t config_long_timeout_ms = 10000;
constexpr int32_t config_success = 0;
constexpr int32_t config_no_value = 100100;
constexpr int32_t default_feed_s = 60;
constexpr size_t longest_triple = size_t{1024} * 1024;  // bytes; parsing takes some fifty times as much memory

constexpr const char* watchdog_name = "iot.gateway.watchdog";
constexpr const char* watchdog_path = "/iot/gateway/watchdog";
constexpr const char* quorvaned_name = "iot.gateway.quorvaned";
constexpr const char* quorvaned_path = "/iot/gateway/quorvaned";
constexpr const char* config_service_name = "iot.dmp.configmanager";
constexpr const char* logging_service_name = "iot.gateway.logger";

constexpr std::array<const char*, 3> identity_keys = {"gw_system_productkey", "gw_system_devicename",
                                                      "gw_system_devicesecret"};
constexpr std::array<const char*, 3> access_server_keys = {"gw_system_as_host", "gw_system_as_port",
                                                           "gw_system_ver_ca"};
constexpr std::array<const char*, 3> remote_access_keys = {"gw_remoteaccess_cloud_host", "gw_remoteaccess_cloud_port",
                                                           "gw_remoteaccess_tls_type"};

// Complete, and of values that the bus carries: one that it does not could not be written, and is as good as missing.
template <class Group>
bool is_writable(const Group& group) {
  return std::all_of(group.begin(), group.end(),
                     [](const std::string& value) { return !value.empty() && Text::is_bus_text(value); });
}

// Whether a call may have reached the configuration service.
bool is_delivered(int32_t result) {
  return result != CDBusChannel::call_closed && result != CDBusChannel::call_unanswerable;
}

// Asked by a connection, which the bus drops again: the socket is in its place a little before anybody may connect.
bool bus_listens() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr std::string_view path = Paths::bus_socket;
  static_assert(path.size() < sizeof address.sun_path);
  std::copy(path.begin(), path.end(), address.sun_path);
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
}

// In full, also on a thread that has been cancelled.
void sleep_in_full(int64_t duration_ms) {
  const int64_t end = CTime::getSystemStartupMilliSecond() + duration_ms;
  for (int64_t left = duration_ms; left > 0; left = end - CTime::getSystemStartupMilliSecond()) CThread::sleep(left);
}

Json::Value reply_object(int32_t code, const char* message) {
  Json::Value reply(Json::objectValue);
  reply["code"] = code;
  reply["message"] = message;
  return reply;
}

}  // namespace

CStartup::CStartup(int32_t progress_fd, const ServiceArguments& arguments)
    : CThread("start_up_thread", policy_fifo, thread_priority, 0),
      install_root(get_install_root()),
      upgrade_path(install_root + "/bin/quorvaned"),
      pending{{arguments[0], arguments[1], arguments[2]},
              {arguments[3], arguments[4], arguments[5]},
              {arguments[6], arguments[7], arguments[8]},
              0,
              false},
      watchdog_channel(
          std::make_unique<CDBusChannel>(Paths::bus_address, watchdog_name, watchdog_path,
                                         std::vector<std::string>{"type='signal',sender='org.freedesktop.DBus'"})),
      quorvaned_channel(
          new CDBusChannel(Paths::bus_address, quorvaned_name, quorvaned_path, std::vector<std::string>{})),
      config_agent(new CConfigAgent(quorvaned_channel, quorvaned_name)),
      service_manager(std::make_unique<CServiceManager>(
          watchdog_channel.get(), progress_fd, [this] { return is_running(); }, config_agent)) {}

CStartup::~CStartup() { (void)stopThread(); }

bool CStartup::start() {
  if (service_manager->init_environment() <= 0) {
    STARTUP_LOG("fail to init service environment");
    return false;
  }
  running = false;
  exit_requested = false;
  if (createThread()) return true;
  STARTUP_LOG("fail to create start up thread");
  return false;
}

bool CStartup::is_running() const { return running && !exit_requested; }

void CStartup::on_child_exit(int32_t pid) { service_manager->process_exit(pid); }

void CStartup::interrupt_cycle() {
  running = false;
  wakeup.post();
}

// --- the controller thread ------------------------------------------------------------------------------------------

int32_t CStartup::threadProc() {
  while (!exit_requested && looping()) {
    run_cycle();
    if (!exit_requested) sleep(restart_wait_ms);
  }
  if (upgrading) return 0;  // the process lives on and waits for the signal that ends the upgrade
  sleep_in_full(normal_exit_wait_ms);
  STARTUP_LOG("quorvaned exit (normal)");
  end_process(0);
}

void CStartup::run_cycle() {
  wakeup.drain();  // posts that nobody waited for would use up the connection attempts at once
  keep_remote_debug = 1;
  // Stored first and read again: an exit that was requested in between must not be overwritten.
  running = true;
  if (exit_requested) running = false;
  bring_up();
  if (running) {
    STARTUP_LOG("quorvaned startup success");
    while (running) (void)wakeup.pend(idle_wait_ms);
  }
  // A forced exit owns the end from here: it stops the services after its own wait. A teardown that has already begun
  // goes on.
  if (exit_requested && !upgrading) wait_for_the_end();
  tear_down();
}

void CStartup::bring_up() {
  if (running) {
    service_manager->run_dbus_daemon();
    // Not looked at, and meant so: whether the bus is there shows when the channels connect.
    STARTUP_LOG("success to startup dbus daemon");
  }
  register_handlers();
  wait_until_bus_listens();
  int32_t attempts = 0;  // one counter for both channels, deliberately not reset between them
  connect_channel(*watchdog_channel, "watchdog", attempts);
  if (running) service_manager->open_bus_directory();
  connect_channel(*quorvaned_channel, "quorvaned", attempts);
  if (running) start_business_services();
}

void CStartup::register_handlers() {
  const auto member = [this](auto handler) {
    return [this, handler](CDBusRequest& request, CDBusResponse& response, bool& later) {
      (this->*handler)(request, response, later);
    };
  };
  watchdog_channel->register_error_callback([this](int32_t error) { dbus_error_callback(error); });
  watchdog_channel->register_signal_callback("feedDog",
                                             [this](CDBusSignal& signal) { feed_dog_signal_handler(signal); },
                                             {{{"dbus_name", "s"}, {"item", "s"}, {"seconds", "i"}}, {}});
  watchdog_channel->register_signal_callback("NameOwnerChanged",
                                             [this](CDBusSignal& signal) { name_owner_changed_signal_hander(signal); });
  quorvaned_channel->register_method_callback("get_le_status", member(&CStartup::get_le_status_member_handler),
                                              {{}, {{"status", "s"}}});
  quorvaned_channel->register_method_callback("set_gateway_triple",
                                              member(&CStartup::gateway_tripe_change_member_handler),
                                              {{{"triple", "s"}}, {{"result", "s"}}});
  quorvaned_channel->register_method_callback("reboot", member(&CStartup::reboot_member_handler));
  quorvaned_channel->register_method_callback("start_upgrade", member(&CStartup::start_upgrade_member_handler));
}

// The bus daemon takes some milliseconds; an attempt before that is in vain, and the next one is half a second away.
void CStartup::wait_until_bus_listens() {
  const int64_t end = CTime::getSystemStartupMilliSecond() + listen_wait_ms;
  while (running && !bus_listens() && CTime::getSystemStartupMilliSecond() < end) {
    if (wakeup.pend(listen_look_ms)) return;
  }
}

void CStartup::connect_channel(CDBusChannel& channel, const char* name, int32_t& attempts) {
  while (running) {
    if (attempts++ > last_attempt) {
      STARTUP_LOG("%s fail to connect dbus daemon", name);
      running = false;
      return;
    }
    if (channel.start()) {
      STARTUP_LOG("%s success to connect dbus daemon", name);
      return;
    }
    (void)wakeup.pend(attempt_wait_ms);
  }
}

void CStartup::start_business_services() {
  service_manager->run_services();
  // Written whatever came of it, and meant so: the monitor deals with services that did not come up.
  STARTUP_LOG("success to startup business service");
  if (!running) return;
  if (service_manager->start_monitor()) {
    STARTUP_LOG("begin to monitor business service");
  } else {
    STARTUP_LOG("fail to monitor business service");
    running = false;
  }
}

void CStartup::tear_down() {
  empty_handlers();
  STARTUP_LOG("stop monitor service");
  service_manager->stop_monitor();
  STARTUP_LOG("stop business service");
  service_manager->stop_services(0, static_cast<int32_t>(keep_remote_debug.load()));
  STARTUP_LOG("close quorvaned dbus channel");
  quorvaned_channel->stop();
  STARTUP_LOG("close watchdog dbus channel");
  watchdog_channel->stop();
  STARTUP_LOG("stop dbus daemon");
  service_manager->stop_dbus_daemon();
}

// "reboot" and "start_upgrade" keep their handlers: they are answered while the stack goes down, and meant to be.
void CStartup::empty_handlers() {
  watchdog_channel->register_error_callback({});
  watchdog_channel->register_signal_callback("feedDog", {});
  watchdog_channel->register_signal_callback("NameOwnerChanged", {});
  quorvaned_channel->register_method_callback("get_le_status", {});
  quorvaned_channel->register_method_callback("set_gateway_triple", {});
}

// --- the end, in the signal handler's context ------------------------------------------------------------------------

void CStartup::stop(uint32_t keep_remote) {
  if (upgrading) end_process(0);
  keep_remote_debug = keep_remote;
  exit_requested = true;
  if (upgrading) keep_remote_debug = 1;  // requested just now: its teardown may still run before the end
  cancelThread();
  interrupt_cycle();
  if (stopping.exchange(true)) return;  // a second signal in the first one's wait: that one ends the process
  sleep(forced_exit_wait_ms);
  STARTUP_LOG("quorvaned exit (force)");
  service_manager->stop_dbus_daemon();
  service_manager->stop_services(1, 1);
  service_manager->wait_for_stop_script();
  end_process(0);
}

void CStartup::finish_upgrade() {
  STARTUP_LOG("finsh upgrade quorvane!");
  log_flush();
  (void)::execl(upgrade_path.c_str(), upgrade_path.c_str(), "--nofork", static_cast<char*>(nullptr));
  end_process(0);
}

// --- the bus ---------------------------------------------------------------------------------------------------------

void CStartup::dbus_error_callback(int32_t error) {
  STARTUP_LOG("dbus error callback, error:%d", error);
  interrupt_cycle();
}

void CStartup::feed_dog_signal_handler(CDBusSignal& signal) {
  std::string dbus_name;
  std::string item;
  int32_t seconds = default_feed_s;
  (void)signal.get_string(dbus_name);  // what is missing keeps its default
  (void)signal.get_string(item);
  (void)signal.get_int32(seconds);
  service_manager->feed_dog(dbus_name, item, seconds);
}

// Runs whatever the owners are: a service that leaves is handled like one that arrives, deliberately.
void CStartup::name_owner_changed_signal_hander(CDBusSignal& signal) {
  std::string name;
  std::string old_owner;
  std::string new_owner;
  (void)signal.get_string(name);
  if (name == config_service_name) {
    sync_gateway_identity();
    sync_ha_switch();
  }
  if (name == logging_service_name) log_init("quorvaned", 1, 0, 2);
  service_manager->service_online(name);
  (void)signal.get_string(old_owner);
  (void)signal.get_string(new_owner);
  log_print(log_level_trace, "color", "tag", __FILE_NAME__, "name_owner_changed_signal_hander", __LINE__,
            "NameOwnerChanged, name:%s, old_owner:%s, new_owner:%s", name.c_str(), old_owner.c_str(),
            new_owner.c_str());
}

void CStartup::get_le_status_member_handler(CDBusRequest& /*request*/, CDBusResponse& response, bool& /*later*/) {
  std::string status;
  service_manager->get_status(status);
  if (!Text::is_bus_text(status)) status = Text::to_bus_text(status);
  (void)response.set_string(status);  // without memory the reply stays empty
}

void CStartup::gateway_tripe_change_member_handler(CDBusRequest& request, CDBusResponse& response, bool& /*later*/) {
  constexpr const char* function = "gateway_tripe_change_member_handler";
  Json::Value reply = reply_object(0, "Success");
  std::string text;
  Json::Value body;
  Group identity;
  if (!request.get_string(text)) {
    log_print(log_level_failure, "color", "tag", __FILE_NAME__, function, __LINE__,
              "gateway_tripe_change_member_handler, get dbus parameter fail");
    reply = reply_object(1, "invaild dbus parameter");
  } else if (text.size() > longest_triple || !JsonOpr::string_to_json(text, body)) {
    log_print(log_level_failure, "color", "tag", __FILE_NAME__, function, __LINE__,
              "gateway_tripe_change_member_handler, json to string fail");
    reply = reply_object(2, "dbus parameter format error");
  } else {
    identity = {JsonOpr::get_json_value(body, "productkey", ""), JsonOpr::get_json_value(body, "devicename", ""),
                JsonOpr::get_json_value(body, "devicesecret", "")};
    if (!is_writable(identity)) {
      log_print(log_level_failure, "color", "tag", __FILE_NAME__, function, __LINE__,
                "gateway_tripe_change_member_handler, get pk/dn/ds fail");
      reply = reply_object(2, "dbus parameter format error");
    } else {
      log_print(log_level_info, "color", "tag", __FILE_NAME__, function, __LINE__,
                "gateway_tripe_change_member_handler, pk:%s dn:%s", identity[0].c_str(), identity[1].c_str());
      {
        const std::lock_guard guard(pending_lock);
        pending.identity = identity;
        ++pending.generation;
      }
      request_restart();
    }
  }
  std::string result;
  (void)JsonOpr::json_to_string(reply, result, false);  // of our own making
  log_print(log_level_info, "color", "tag", __FILE_NAME__, function, __LINE__,
            "gateway_tripe_change_member_handler, result:%s", result.c_str());
  (void)response.set_string(result);
}

// The caller gets an empty reply, deliberately; the result is only logged.
void CStartup::reboot_member_handler(CDBusRequest& /*request*/, CDBusResponse& /*response*/, bool& /*later*/) {
  std::string result;
  (void)JsonOpr::json_to_string(reply_object(0, "Success"), result, false);  // of our own making
  log_print(log_level_info, "color", "tag", __FILE_NAME__, "reboot_member_handler", __LINE__,
            "reboot_member_handler, result:%s", result.c_str());
  request_restart();
}

void CStartup::request_restart() {
  // An upgrade's teardown keeps it, whoever asks for a restart meanwhile. One store: that teardown may be reading.
  keep_remote_debug = upgrading ? 1 : 0;
  interrupt_cycle();
}

void CStartup::start_upgrade_member_handler(CDBusRequest& /*request*/, CDBusResponse& /*response*/, bool& /*later*/) {
  STARTUP_LOG("start upgrade quorvane......");
  upgrading = true;
  keep_remote_debug = 1;
  exit_requested = true;
  running = false;
  cancelThread();
  wakeup.post();
}

// --- the gateway identity --------------------------------------------------------------------------------------------

bool CStartup::read_current(const char* key, std::string& value) {
  const int32_t code = config_agent->get_config(key, value, config_timeout_ms);
  if (code == config_success || code == config_no_value) return true;
  // The product key's name for every key, deliberately.
  STARTUP_LOG("get current gw_system_productkey fail");
  running = false;
  return false;
}

// Returns false when a value may not have reached the configuration service: it has left, or the bus has, or a teardown
// ends the calls. What it answers, and whether it answers in time, is deliberately not looked at.
bool CStartup::write_group(const Keys& keys, const Group& values, bool last_is_protected) {
  bool all_delivered = true;
  for (size_t i = 0; i < keys.size(); ++i) {
    const bool is_protected = last_is_protected && i + 1 == keys.size();
    all_delivered &= is_delivered(config_agent->set_config(keys[i], values[i], config_timeout_ms, is_protected));
  }
  return all_delivered;
}

// Returns false when the current identity could not be read, or the calls may have been cut short: everything stays
// pending then. `unfinished`: they were cut short before, and what is stored may be half of it.
bool CStartup::sync_identity_group(const Group& wanted, bool unfinished) {
  std::string product_key;
  std::string device_name;
  if (!read_current(identity_keys[0], product_key) || !read_current(identity_keys[1], device_name)) {
    return false;
  }
  STARTUP_LOG("check current gw_system_productkey=%s gw_system_devicename=%s", product_key.c_str(),
              device_name.c_str());
  // The secret is deliberately not compared.
  if (!unfinished && product_key == wanted[0] && device_name == wanted[1]) return true;
  {
    const std::lock_guard guard(pending_lock);
    pending.unfinished = true;
  }
  if (!product_key.empty() && !device_name.empty()) {
    STARTUP_LOG("reset config-manager");
    // Refused or too late: the new identity is written anyhow.
    if (!is_delivered(config_agent->reset_config(config_long_timeout_ms))) return false;
    STARTUP_LOG("clean business runtime data");
    clean_runtime_data();
  }
  STARTUP_LOG("set config gw_system_productkey=%s gw_system_devicename=%s", wanted[0].c_str(), wanted[1].c_str());
  const bool written = write_group(identity_keys, wanted, true);
  return is_delivered(config_agent->flush_config(config_long_timeout_ms)) && written;
}

bool CStartup::sync_endpoint(const Keys& keys, const Group& wanted) {
  if (!is_writable(wanted)) return true;
  STARTUP_LOG("set config %s=%s %s=%s %s=%s", keys[0], wanted[0].c_str(), keys[1], wanted[1].c_str(), keys[2],
              wanted[2].c_str());
  return write_group(keys, wanted, false);
}

void CStartup::sync_gateway_identity() {
  Pending wanted;
  {
    const std::lock_guard guard(pending_lock);
    wanted = pending;
  }
  if (is_writable(wanted.identity) && !sync_identity_group(wanted.identity, wanted.unfinished)) return;
  {
    const std::lock_guard guard(pending_lock);
    pending.unfinished = false;
    if (pending.generation == wanted.generation) pending.identity = {};  // else another one arrived meanwhile
  }
  const bool access_server_written = sync_endpoint(access_server_keys, wanted.access_server);
  const bool remote_access_written = sync_endpoint(remote_access_keys, wanted.remote_access);
  if (!access_server_written || !remote_access_written) return;  // what may not have arrived is applied again next time
  const std::lock_guard guard(pending_lock);
  pending.access_server = {};
  pending.remote_access = {};
}

void CStartup::sync_ha_switch() {
  const char* const value = service_manager->is_ha_service_switch_on() ? "on" : "off";
  STARTUP_LOG("set config %s=%s", "gw_ha_service_switch", value);
  (void)config_agent->set_config("gw_ha_service_switch", value, config_timeout_ms, false);  // repeated next time
}

}  // namespace Tessaro::Iot::Quorvaned
