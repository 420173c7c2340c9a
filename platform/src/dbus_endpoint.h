// Where a channel lives on the bus, and how it gets there.
#pragma once

#include <dbus/dbus.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "dbus_deadline.h"
#include "platform/dbus_connection.h"
#include "platform/text.h"

namespace Tessaro::Iot::Component {

struct DBusEndpoint {
  std::string address;
  std::string name;  // empty: none is taken
  std::string path;
  std::vector<std::string> match_rules;

  // A connection that owns the name and hears what it should; null when any of that failed.
  [[nodiscard]] DBusConnectionPtr connect(const DBusDeadline& deadline) const {
    if (!is_valid()) return nullptr;
    DBusConnectionPtr connection(open_private_connection(address, deadline.remaining_ms()));
    // The name comes last: whoever sees it appear finds a channel that hears everything.
    const bool ready = connection && add_rules(connection.get(), deadline) && take_name(connection.get(), deadline);
    return ready ? std::move(connection) : nullptr;
  }

 private:
  [[nodiscard]] bool is_valid() const {
    if (name.empty()) return true;
    return Text::is_bus_text(name) && Text::is_bus_text(path) &&
           dbus_validate_bus_name(name.c_str(), nullptr) != FALSE &&
           dbus_validate_interface(name.c_str(), nullptr) != FALSE &&
           dbus_validate_path(path.c_str(), nullptr) != FALSE;
  }

  [[nodiscard]] bool add_rules(DBusConnection* connection, const DBusDeadline& deadline) const {
    const auto added = [connection, &deadline](const std::string& rule) {
      return add_bus_match(connection, rule, deadline.remaining_ms());
    };
    if (!name.empty() && !added("type='signal',interface='" + name + "'")) return false;
    return std::all_of(match_rules.begin(), match_rules.end(), added);
  }

  [[nodiscard]] bool take_name(DBusConnection* connection, const DBusDeadline& deadline) const {
    if (name.empty()) return true;
    const int32_t code = request_bus_name(connection, name, deadline.remaining_ms());
    return code == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER || code == DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER;
  }
};

}  // namespace Tessaro::Iot::Component
