// The start-up controller: brings the stack up and down in cycles, and answers the bus.
//
//   constructed    --start-->                starting     main thread
//   starting       --all steps done-->       up           controller   "quorvaned startup success"
//   starting, up   --`running` cleared-->    tearing down controller   "stop monitor service" ...
//   tearing down   --done-->                 restart wait controller   1 s, then starting again
//   tearing down   --done, exit requested--> ended        controller   returns (upgrade) or "quorvaned exit (normal)"
//   any            --stop-->                 forced exit  main thread  5 s, "quorvaned exit (force)"
//   any            --finish_upgrade-->       new image    main thread  "finsh upgrade quorvane!"
//
// `running` is cleared by "reboot", "set_gateway_triple", a lost bus, a failed step, a failed read of the identity, the
// request for an upgrade and `stop`. Who wants a prompt reaction clears it first and posts `wakeup` then.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "arguments.h"
#include "platform/config_agent.h"
#include "platform/dbus_channel.h"
#include "platform/semaphore.h"
#include "platform/thread.h"
#include "service_manager.h"

namespace Tessaro::Iot::Quorvaned {

class CStartup : public Component::CThread {
 public:
  // `progress_fd` receives the progress lines (owned by the service manager); the nine strings are pending until the
  // configuration service appears, empty ones are not. Created once and never destroyed in practice.
  // Context: main thread.
  CStartup(int32_t progress_fd, const ServiceArguments& arguments);
  ~CStartup() override;

  // Prepares the running environment and starts the controller thread. Returns true when both succeeded.
  // Context: main thread.
  [[nodiscard]] bool start();

  // Forced exit: after 5 s the bus daemon and the services are stopped and the process ends with status 0. While an
  // upgrade is under way it ends at once and stops nothing. Returns only to an earlier call that is still in its 5 s.
  // Context: the signal handler, where it interrupted a wait of the main thread.
  void stop(uint32_t keep_remote);

  // Replaces the process image by the installed executable. Never returns.
  // Context: the signal handler, where it interrupted a wait of the main thread.
  [[noreturn]] void finish_upgrade();

  // Tells of a child that has ended and is not reaped yet.
  // Context: main thread.
  void on_child_exit(int32_t pid);

  // True while the controller runs and is not exiting.
  // Context: any thread.
  [[nodiscard]] bool is_running() const;

 protected:
  int32_t threadProc() override;

 private:
  // One group of three strings that are applied together.
  using Group = std::array<std::string, 3>;
  using Keys = std::array<const char*, 3>;
  struct Pending {
    Group identity;           // product_key, device_name, device_secret
    Group access_server;      // as_host, as_port, ver_ca
    Group remote_access;      // cloud_host, cloud_port, tls_type
    uint64_t generation = 0;  // counts the identities that were accepted over the bus
    bool unfinished = false;  // an identity was written in part, or may have been
  };

  // Controller thread.
  void run_cycle();
  void bring_up();
  void register_handlers();
  void wait_until_bus_listens();
  void connect_channel(Component::CDBusChannel& channel, const char* name, int32_t& attempts);
  void start_business_services();
  void tear_down();
  void empty_handlers();

  // Dispatch threads.
  void dbus_error_callback(int32_t error);
  void feed_dog_signal_handler(Component::CDBusSignal& signal);
  void name_owner_changed_signal_hander(Component::CDBusSignal& signal);
  void get_le_status_member_handler(Component::CDBusRequest& request, Component::CDBusResponse& response, bool& later);
  void gateway_tripe_change_member_handler(Component::CDBusRequest& request, Component::CDBusResponse& response,
                                           bool& later);
  void reboot_member_handler(Component::CDBusRequest& request, Component::CDBusResponse& response, bool& later);
  void start_upgrade_member_handler(Component::CDBusRequest& request, Component::CDBusResponse& response, bool& later);
  void sync_gateway_identity();
  [[nodiscard]] bool sync_identity_group(const Group& wanted, bool unfinished);
  [[nodiscard]] bool sync_endpoint(const Keys& keys, const Group& wanted);
  [[nodiscard]] bool write_group(const Keys& keys, const Group& values, bool last_is_protected);
  void sync_ha_switch();
  [[nodiscard]] bool read_current(const char* key, std::string& value);
  void request_restart();

  // Any thread.
  void interrupt_cycle();

  std::atomic<bool> running{false};
  std::atomic<bool> exit_requested{false};
  std::atomic<uint32_t> keep_remote_debug{1};
  std::atomic<bool> upgrading{false};
  std::atomic<bool> stopping{false};  // a forced exit waits its 5 s
  std::string install_root;
  std::string upgrade_path;  // formed early: the signal handler allocates nothing

  std::mutex pending_lock;
  Pending pending;  // guarded by pending_lock

  Component::CSemaphore wakeup{0};
  std::unique_ptr<Component::CDBusChannel> watchdog_channel;
  Component::CDBusChannel* quorvaned_channel;  // not released, like config_agent: the controller is never destroyed
  Component::CConfigAgent* config_agent;
  std::unique_ptr<Component::CServiceManager> service_manager;

  friend class StartupProbe;  // the unit tests drive the thread body
};

}  // namespace Tessaro::Iot::Quorvaned
