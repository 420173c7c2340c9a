// The fixed paths and addresses of the gateway. They do not follow the install root.
#pragma once

namespace Tessaro::Iot::Component::Paths {

constexpr const char* run_root = "/quorvane/run";
constexpr const char* startup_log = "/quorvane/run/startup/quorvaned.log";
constexpr const char* pid_file = "/quorvane/run/startup/quorvaned.pid";

constexpr const char* bus_address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr const char* bus_directory_base = "/tmp";
constexpr const char* bus_directory = "/tmp/var/run/mbusd/";
constexpr const char* bus_pid_file = "/tmp/var/run/mbusd/mbusd.pid";
constexpr const char* bus_socket = "/tmp/var/run/mbusd/mbusd_socket";

}  // namespace Tessaro::Iot::Component::Paths
