// The members of a channel, and how it describes them to the tools that ask.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/dbus_channel.h"

namespace Tessaro::Iot::Component {

// Where an object path lies, seen from a channel's own.
enum class DBusPathRole { own, parent, unknown };

[[nodiscard]] DBusPathRole path_role(std::string_view own_path, std::string_view path) noexcept;

// The name of the node below `parent` on the way to `own_path`.
[[nodiscard]] std::string_view child_node(std::string_view own_path, std::string_view parent) noexcept;

// What a channel serves. Everything here may be called from any thread; what `find_...` gives stays valid when the
// member is replaced meanwhile.
class CDBusMembers {
 public:
  struct Method {
    CDBusChannel::MethodHandler handler;
    CDBusMemberArguments arguments;
  };
  struct Signal {
    CDBusChannel::SignalHandler handler;
    CDBusMemberArguments arguments;
  };

  // An empty handler takes the member away.
  void set_method(const std::string& member, Method method);
  void set_signal(const std::string& member, Signal signal);
  // Null when there is none.
  [[nodiscard]] std::shared_ptr<const Method> find_method(std::string_view member) const;
  [[nodiscard]] std::shared_ptr<const Signal> find_signal(std::string_view member) const;

  // The description of the object at `path`, which is `own_path` or one of its parents.
  [[nodiscard]] std::string describe(const std::string& interface, std::string_view own_path,
                                     std::string_view path) const;

 private:
  template <class Member>
  using Table = std::map<std::string, std::shared_ptr<const Member>, std::less<>>;

  template <class Member>
  void set(Table<Member>& table, const std::string& name, Member member);
  template <class Member>
  std::shared_ptr<const Member> find(const Table<Member>& table, std::string_view name) const;
  std::string describe_members(const std::string& interface) const;

  mutable std::mutex mutex_;  // guards both tables; never held while a handler runs or is destroyed
  Table<Method> methods_;
  Table<Signal> signals_;
};

}  // namespace Tessaro::Iot::Component
