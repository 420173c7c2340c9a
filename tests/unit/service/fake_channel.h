// The bus channel of a unit test: tests play the bus.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/dbus_channel.h"

namespace Tessaro::Iot::Fakes {

// What a channel was given and what happened to it.
struct FakeChannel {
  std::string address;
  std::string name;
  std::string path;
  std::vector<std::string> match_rules;
  std::map<std::string, Component::CDBusChannel::MethodHandler> methods;
  std::map<std::string, Component::CDBusChannel::SignalHandler> signals;
  Component::CDBusChannel::ErrorHandler error;
  std::vector<std::string> registrations;  // "feedDog set", "feedDog empty", in order
  int32_t starts = 0;
  int32_t stops = 0;
  bool up = false;

  // Calls a method with string arguments as the bus would. Returns the reply, or no message when there is no handler.
  Component::CDBusResponse call(const std::string& member, const std::vector<std::string>& arguments = {});
  // Delivers a signal; false when it has no handler.
  bool signal(const std::string& member, Component::CDBusSignal signal);
  bool name_owner_changed(const std::string& bus_name, const std::string& old_owner, const std::string& new_owner);
  bool feed_dog(const std::string& bus_name, const std::string& item, int32_t seconds);
};

// The channel of that well-known name, of the last controller that was made.
FakeChannel& fake_channel(const std::string& name);

}  // namespace Tessaro::Iot::Fakes
