// The fixed paths and addresses of the gateway. They do not follow the install root.
#pragma once

#include "platform/gateway_bus.h"

namespace Tessaro::Iot::Component::Paths {

constexpr const char* run_root = "/quorvane/run";
constexpr const char* startup_log = "/quorvane/run/startup/quorvaned.log";
constexpr const char* pid_file = "/quorvane/run/startup/quorvaned.pid";

constexpr const char* bus_address = gateway_bus_address;
constexpr const char* bus_directory_base = "/tmp";
constexpr const char* bus_directory = "/tmp/var/run/mbusd/";
constexpr const char* bus_pid_file = "/tmp/var/run/mbusd/mbusd.pid";
constexpr const char* bus_socket = "/tmp/var/run/mbusd/mbusd_socket";

}  // namespace Tessaro::Iot::Component::Paths
