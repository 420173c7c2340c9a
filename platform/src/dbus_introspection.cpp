#include "dbus_introspection.h"

#include <dbus/dbus.h>

#include <utility>

namespace Tessaro::Iot::Component {

namespace {

// The bus driver's own signal: a channel hears it, but it is no member of the channel's interface.
constexpr std::string_view driver_signal = "NameOwnerChanged";

constexpr const char* standard_interfaces =
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "    <method name=\"Ping\"/>\n"
    "    <method name=\"GetMachineId\">\n"
    "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n";

std::string escaped(std::string_view text) {
  std::string result;
  for (const char character : text) {
    switch (character) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += character;
    }
  }
  return result;
}

// `direction` is empty for the arguments of a signal, which have none.
std::string described(const std::vector<CDBusArgument>& arguments, const char* direction) {
  std::string xml;
  for (const CDBusArgument& argument : arguments) {
    xml += "      <arg name=\"" + escaped(argument.name) + "\" type=\"" + escaped(argument.type) + "\"";
    if (*direction != '\0') xml += std::string(" direction=\"") + direction + "\"";
    xml += "/>\n";
  }
  return xml;
}

std::string element(const char* kind, const std::string& name, const std::string& arguments) {
  const std::string opening = std::string("    <") + kind + " name=\"" + escaped(name) + "\"";
  if (arguments.empty()) return opening + "/>\n";
  return opening + ">\n" + arguments + "    </" + kind + ">\n";
}

}  // namespace

DBusPathRole path_role(std::string_view own_path, std::string_view path) noexcept {
  if (own_path.empty()) return DBusPathRole::unknown;
  if (path == own_path) return DBusPathRole::own;
  if (path == "/") return DBusPathRole::parent;
  const bool below = own_path.size() > path.size() && own_path.substr(0, path.size()) == path;
  return below && own_path[path.size()] == '/' ? DBusPathRole::parent : DBusPathRole::unknown;
}

std::string_view child_node(std::string_view own_path, std::string_view parent) noexcept {
  const std::string_view rest = own_path.substr(parent == "/" ? 1 : parent.size() + 1);
  return rest.substr(0, rest.find('/'));
}

template <class Member>
void CDBusMembers::set(Table<Member>& table, const std::string& name, Member member) {
  std::shared_ptr<const Member> entry;
  if (member.handler) entry = std::make_shared<const Member>(std::move(member));
  const std::lock_guard<std::mutex> lock(mutex_);
  std::shared_ptr<const Member>& slot = table[name];
  slot.swap(entry);  // the previous one goes after the lock
  if (!slot) table.erase(name);
}

template <class Member>
std::shared_ptr<const Member> CDBusMembers::find(const Table<Member>& table, std::string_view name) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto position = table.find(name);
  return position == table.end() ? nullptr : position->second;
}

void CDBusMembers::set_method(const std::string& member, Method method) { set(methods_, member, std::move(method)); }

void CDBusMembers::set_signal(const std::string& member, Signal signal) { set(signals_, member, std::move(signal)); }

std::shared_ptr<const CDBusMembers::Method> CDBusMembers::find_method(std::string_view member) const {
  return find(methods_, member);
}

std::shared_ptr<const CDBusMembers::Signal> CDBusMembers::find_signal(std::string_view member) const {
  return find(signals_, member);
}

std::string CDBusMembers::describe(const std::string& interface, std::string_view own_path,
                                   std::string_view path) const {
  std::string xml = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE;
  xml += "<node>\n";
  xml += standard_interfaces;
  if (path == own_path) {
    xml += describe_members(interface);
  } else {
    xml += "  <node name=\"" + escaped(child_node(own_path, path)) + "\"/>\n";
  }
  return xml + "</node>\n";
}

std::string CDBusMembers::describe_members(const std::string& interface) const {
  if (interface.empty()) return {};
  std::string xml = "  <interface name=\"" + escaped(interface) + "\">\n";
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [name, method] : methods_) {
    xml += element("method", name, described(method->arguments.in, "in") + described(method->arguments.out, "out"));
  }
  for (const auto& [name, signal] : signals_) {
    if (name != driver_signal) xml += element("signal", name, described(signal->arguments.in, ""));
  }
  return xml + "  </interface>\n";
}

}  // namespace Tessaro::Iot::Component
