// A message bus of the test's own: a real dbus-daemon with its configuration and its socket in a directory of its own.
#pragma once

#include <sys/types.h>

#include <string>

#include "temp_dir.h"

namespace test {

class PrivateBus {
 public:
  // Starts it; `ok` tells whether it listens.
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  [[nodiscard]] bool ok() const { return pid_ > 0; }
  [[nodiscard]] const std::string& address() const { return address_; }
  [[nodiscard]] const std::string& socket_path() const { return socket_path_; }

  // Starts it (again) on the same address. Returns true when it listens.
  bool start();
  // Ends it the hard way and waits for its end.
  void kill();
  // Stops the process with SIGSTOP, and waits until it stands still.
  void freeze();
  void thaw();

 private:
  TempDir dir_;
  std::string socket_path_;
  std::string address_;
  pid_t pid_ = -1;
};

}  // namespace test
