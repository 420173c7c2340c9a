// The supervisor, as the one who upgrades it sees it: a process that is found by its pid file, asked over its bus,
// signalled, watched, and started when it has gone.
#pragma once

#include <dbus/dbus.h>

#include <chrono>
#include <optional>
#include <string>

#include "bus_connection.h"
#include "descriptor.h"

namespace gateway::update {

// The process. The handle goes on meaning this one, whatever becomes of its number, and through the replacement of its
// image.
class Supervisor {
 public:
  enum class Found {
    none,     // nobody holds the pid file
    ours,     // the supervisor of the installation
    foreign,  // somebody else holds it
  };
  // Looks for the one that runs from the install root `root`; `supervisor` is filled when it is there.
  [[nodiscard]] static Found find(const std::string& root, std::optional<Supervisor>& supervisor);

  // Valid while the process has not been collected; for messages, and to compare with what the bus says.
  [[nodiscard]] int pid() const { return pid_; }

  // Lets the time pass until the process ends. True when it has ended.
  [[nodiscard]] bool wait_for_end(std::chrono::milliseconds time) const;

  // False when it has ended.
  bool signal(int number) const;

  // Makes it end: SIGTERM, and SIGKILL when it has not ended within the time that an orderly end takes.
  void end() const;

  // Waits until its services have ended, except those that stay during an upgrade, but not longer than `time`. False
  // when one is left.
  [[nodiscard]] bool wait_for_services(std::chrono::milliseconds time) const;

  // Waits until it answers on its bus, and goes on running and answering for a while.
  enum class Comes { up, ended, silent };
  [[nodiscard]] Comes wait_until_up(std::chrono::milliseconds time) const;

 private:
  Supervisor(int pid, Descriptor handle) : pid_(pid), handle_(std::move(handle)) {}

  int pid_;
  Descriptor handle_;
};

// A connection to the gateway's bus that tells when the bus goes away. Each step of it takes at most three seconds.
class Bus {
 public:
  // False when there is no bus; `problem` tells why. To be called once.
  [[nodiscard]] bool connect(std::string& problem);

  // The process that answers as the supervisor; 0 when nobody does.
  [[nodiscard]] int supervisor_pid();

  enum class Answer {
    yes,      // it was answered
    no,       // it was refused: nothing has happened
    unclear,  // no answer came: it may have been heard
  };
  // Calls a method of the supervisor without arguments. `problem` tells why when the answer is not `yes`.
  [[nodiscard]] Answer call(const char* member, std::string& problem);

  // Lets the time pass until the bus goes away. True when it has gone.
  [[nodiscard]] bool wait_until_lost(std::chrono::milliseconds time);

 private:
  DBusMessage* ask(DBusMessage* call, DBusError* error);

  BusConnection connection_;
};

// True when that process answers on the bus as the supervisor, and says how its services are.
[[nodiscard]] bool answers(int pid);

// Starts the supervisor of the install root as at boot: in a session of its own, nobody's child, no output. Does not
// wait for it. False when no process could be made.
bool launch(const std::string& root);

}  // namespace gateway::update
