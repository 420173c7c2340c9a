// The object that a channel serves: which calls and signals are for it, and who handles them.
#pragma once

#include <dbus/dbus.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "dbus_introspection.h"
#include "platform/dbus_message.h"

namespace Tessaro::Iot::Component {

// `respond` and `deliver` run handlers and are for the dispatch thread alone; the members may change meanwhile.
class CDBusObject {
 public:
  // `name` is also the interface of all members.
  CDBusObject(std::string name, std::string path) : name_(std::move(name)), path_(std::move(path)) {}

  [[nodiscard]] CDBusMembers& members() noexcept { return members_; }

  // What to send back for a method call: no message when the caller wants none, or will be answered later.
  [[nodiscard]] CDBusResponse respond(DBusMessage* call) {
    bool answered_later = false;
    CDBusResponse response = route(call, answered_later);
    const bool wanted = !answered_later && dbus_message_get_no_reply(call) == FALSE;
    return wanted ? std::move(response) : CDBusResponse();
  }

  // Hands a signal to its handler, when it is for this object of the connection called `unique_name`.
  void deliver(DBusMessagePtr message, const char* unique_name) {
    if (!is_for_us(message.get(), text_of(unique_name))) return;
    const auto entry = members_.find_signal(text_of(dbus_message_get_member(message.get())));
    if (!entry) return;
    CDBusSignal signal(std::move(message));
    entry->handler(signal);
  }

 private:
  static std::string_view text_of(const char* text) noexcept { return text == nullptr ? std::string_view() : text; }

  static CDBusResponse error(DBusMessage* call, const char* name, const char* text) noexcept {
    return CDBusResponse(DBusMessagePtr(dbus_message_new_error(call, name, text)));
  }

  CDBusResponse route(DBusMessage* call, bool& answered_later) {
    const std::string_view interface = text_of(dbus_message_get_interface(call));
    const std::string_view member = text_of(dbus_message_get_member(call));
    const DBusPathRole role = path_role(path_, text_of(dbus_message_get_path(call)));

    if (role == DBusPathRole::unknown) return error(call, DBUS_ERROR_UNKNOWN_OBJECT, "No such object");
    const bool introspectable = interface == DBUS_INTERFACE_INTROSPECTABLE;
    if (member == "Introspect" && (introspectable || interface.empty())) return introspect(call);
    if (!introspectable && !interface.empty() && interface != name_) {
      return error(call, DBUS_ERROR_UNKNOWN_INTERFACE, "No such interface at this path");
    }
    if (!introspectable && role == DBusPathRole::parent) {
      return error(call, DBUS_ERROR_UNKNOWN_OBJECT, "Only introspection at this path");
    }
    const auto method = introspectable ? nullptr : members_.find_method(member);
    if (!method) return error(call, DBUS_ERROR_UNKNOWN_METHOD, "No such method");
    return run(call, *method, answered_later);
  }

  static CDBusResponse run(DBusMessage* call, const CDBusMembers::Method& method, bool& answered_later) {
    CDBusRequest request{DBusMessagePtr(dbus_message_ref(call))};
    CDBusResponse response(request);
    try {
      method.handler(request, response, answered_later);
    } catch (...) {
      answered_later = false;
      return error(call, DBUS_ERROR_FAILED, "The method failed");
    }
    return response;
  }

  CDBusResponse introspect(DBusMessage* call) const {
    CDBusResponse response{DBusMessagePtr(dbus_message_new_method_return(call))};
    // Refused for want of memory only: then the answer is empty.
    (void)response.set_string(members_.describe(name_, path_, text_of(dbus_message_get_path(call))));
    return response;
  }

  bool is_for_us(DBusMessage* signal, std::string_view unique_name) const {
    const std::string_view destination = text_of(dbus_message_get_destination(signal));
    if (!destination.empty() && destination != name_ && destination != unique_name) return false;
    // Anybody can send a signal of this name; only the driver knows who owns what.
    if (dbus_message_has_member(signal, "NameOwnerChanged") != FALSE) {
      return dbus_message_has_sender(signal, DBUS_SERVICE_DBUS) != FALSE &&
             dbus_message_has_interface(signal, DBUS_INTERFACE_DBUS) != FALSE &&
             dbus_message_has_path(signal, DBUS_PATH_DBUS) != FALSE;
    }
    return text_of(dbus_message_get_interface(signal)) == name_;
  }

  const std::string name_;
  const std::string path_;
  CDBusMembers members_;
};

}  // namespace Tessaro::Iot::Component
