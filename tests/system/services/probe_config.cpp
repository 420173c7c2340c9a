#include "probe_config.h"

#include <dbus/dbus.h>

#include <memory>

#include "probe_record.h"

namespace probe {
namespace {

constexpr const char* INTERFACE = "iot.dmp.configmanager";
constexpr int NO_VALUE = 100100;

class ConfigService {
 public:
  explicit ConfigService(ConfigOptions options) : _options(std::move(options)) {}

  bool answer(DBusMessage* call, DBusMessage*& reply) {
    const char* interface = dbus_message_get_interface(call);
    if (interface != nullptr && std::string_view(interface) != INTERFACE) {
      return false;
    }
    const std::string_view member = dbus_message_get_member(call);
    if (member == "get_config") {
      get(call, reply);
    } else if (member == "set_config") {
      set(call, reply);
    } else if (member == "reset_config" || member == "flush_config") {
      if (member == "reset_config") {
        _options.values.clear();
      }
      Record("config").text("member", member).write();
      reply_with(call, reply, 0, nullptr);
    } else {
      return false;
    }
    return true;
  }

 private:
  void get(DBusMessage* call, DBusMessage*& reply) {
    const char* key = "";
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID);
    Record("config").text("member", "get_config").text("key", key).write();
    const auto found = _options.values.find(key);
    const char* value = found == _options.values.end() ? "" : found->second.c_str();
    reply_with(call, reply, found == _options.values.end() ? NO_VALUE : 0, value);
  }

  void set(DBusMessage* call, DBusMessage*& reply) {
    const char* key = "";
    const char* value = "";
    dbus_bool_t sealed = FALSE;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value, DBUS_TYPE_BOOLEAN, &sealed,
                          DBUS_TYPE_INVALID);
    Record("config")
        .text("member", "set_config")
        .text("key", key)
        .text("value", value)
        .number("protected", sealed != FALSE ? 1 : 0)
        .write();
    _options.values[key] = value;
    reply_with(call, reply, 0, nullptr);
  }

  void reply_with(DBusMessage* call, DBusMessage*& reply, int code, const char* value) const {
    if (_options.silent) {
      return;
    }
    const dbus_int32_t number = _options.code.value_or(code);
    reply = dbus_message_new_method_return(call);
    if (value == nullptr) {
      dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    } else {
      dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    }
  }

  ConfigOptions _options;
};

}  // namespace

void ConfigOptions::add(std::string_view setting) {
  const std::size_t cut = setting.find('=');
  if (cut != std::string_view::npos) {
    values[std::string(setting.substr(0, cut))] = setting.substr(cut + 1);
  }
}

Bus::Handler config_service(ConfigOptions options) {
  return [service = std::make_shared<ConfigService>(std::move(options))](DBusMessage* call, DBusMessage*& reply) {
    return service->answer(call, reply);
  };
}

}  // namespace probe
