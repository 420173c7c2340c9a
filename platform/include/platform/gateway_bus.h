// Where the private message bus of the gateway is found.
#pragma once

namespace Tessaro::Iot::Component {

inline constexpr const char* gateway_bus_address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";

}  // namespace Tessaro::Iot::Component
