// What every C++ service of the gateway needs: a clean start, a clean end, and, for those that have a bus name, their
// place on the gateway's bus.
//
// One thread does everything: the service's own loop calls `serve` (or `StopSignal::wait`) to let time pass. So a
// service that is stuck in its work neither answers nor feeds its keep-alive, which is what a keep-alive is for.
#pragma once

#include <dbus/dbus.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "bus_connection.h"

namespace gateway {

inline constexpr const char* run_root = "/quorvane/run";

// Writes the text to the file "state" in the service's directory below the run-time root, replacing it in one step.
// The directory is made anew each time: a change of the gateway's identity empties the run-time root.
// False when it could not be written.
bool write_state(const std::string& service, const std::string& text);

// The request to stop (SIGTERM or SIGINT), as something that can be waited for. A service that is stuck and does not
// come back to wait is killed three seconds after the request: the supervisor asks once and never insists.
class StopSignal {
 public:
  // Also sets the umask: services are started with none. To be made first of all, and once.
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  // Lets the time pass. True when the service is to stop; it then stays true.
  [[nodiscard]] bool wait(std::chrono::milliseconds time);
  [[nodiscard]] bool stopped() const { return stopped_; }

 private:
  friend class BusService;
  void take();

  int descriptor_;
  bool stopped_ = false;
};

// A service with a name on the gateway's bus. Its methods are those of the interface that has the same name.
class BusService {
 public:
  // Reads the arguments from the call, writes the results into the reply. False: the arguments are wrong. What it
  // throws becomes the error that the caller gets: it could not be done.
  using Method = std::function<bool(DBusMessage* call, DBusMessage* reply)>;

  // `path` is the object path; `introspection` the interface's inside in D-Bus introspection XML.
  BusService(std::string name, std::string path, std::string introspection, StopSignal& stop);
  BusService(const BusService&) = delete;
  BusService& operator=(const BusService&) = delete;

  // Registers the method. To be called before `connect`: from then on calls arrive.
  void method(const std::string& member, Method handler) { methods_[member] = std::move(handler); }

  // Connects and takes the name. False when the bus or the name cannot be had.
  [[nodiscard]] bool connect();

  // Tells the watchdog that this service is well, and must be told so again within that time. A service may keep
  // several items; each has a deadline of its own. Zero ends the watch of the item.
  void feed_dog(const std::string& item, std::chrono::seconds until_next);

  // Answers calls for that time. False when the service is to end: it was told to stop, or the bus is gone.
  [[nodiscard]] bool serve(std::chrono::milliseconds time);

  // The same until there is something to be read from the descriptor, be it its end.
  [[nodiscard]] bool serve_until_readable(int descriptor);

 private:
  bool serve_until(std::chrono::steady_clock::time_point end, int descriptor);
  static DBusHandlerResult on_message(DBusConnection* connection, DBusMessage* message, void* self);
  DBusHandlerResult answer(DBusMessage* call);

  std::string name_;
  std::string path_;
  std::string introspection_;
  StopSignal& stop_;
  std::map<std::string, Method> methods_;
  BusConnection connection_;
};

}  // namespace gateway
