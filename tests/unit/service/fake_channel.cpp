#include "fake_channel.h"

#include <string>
#include <utility>

#include "fake_world.h"
#include "platform/dbus_channel.h"

namespace Tessaro::Iot::Fakes {

using namespace Component;

namespace {
std::map<std::string, FakeChannel*>& channels() {
  static std::map<std::string, FakeChannel*> all;
  return all;
}
}  // namespace

FakeChannel& fake_channel(const std::string& name) { return *channels().at(name); }

CDBusResponse FakeChannel::call(const std::string& member, const std::vector<std::string>& arguments) {
  CDBusRequest request(name, path, name, member);
  for (const std::string& argument : arguments) (void)request.set_string(argument);
  dbus_message_set_serial(request.message(), 1);
  CDBusResponse response(request);
  if (!methods[member]) return CDBusResponse();
  bool later = false;
  methods[member](request, response, later);
  return response;
}

bool FakeChannel::signal(const std::string& member, CDBusSignal message) {
  if (!signals[member]) return false;
  signals[member](message);
  return true;
}

bool FakeChannel::name_owner_changed(const std::string& bus_name, const std::string& old_owner,
                                     const std::string& new_owner) {
  CDBusSignal message(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
  (void)message.set_string(bus_name);
  (void)message.set_string(old_owner);
  (void)message.set_string(new_owner);
  return signal("NameOwnerChanged", std::move(message));
}

bool FakeChannel::feed_dog(const std::string& bus_name, const std::string& item, int32_t seconds) {
  CDBusSignal message(path, name, "feedDog");
  (void)message.set_string(bus_name);
  (void)message.set_string(item);
  (void)message.set_int32(seconds);
  return signal("feedDog", std::move(message));
}

}  // namespace Tessaro::Iot::Fakes

namespace Tessaro::Iot::Component {

using Fakes::FakeChannel;
using Fakes::World;

class CDBusChannel::Impl {
 public:
  FakeChannel channel;
};

CDBusChannel::CDBusChannel(std::string address, std::string name, std::string path,
                           std::vector<std::string> match_rules)
    : impl_(std::make_unique<Impl>()) {
  impl_->channel.address = std::move(address);
  impl_->channel.name = name;
  impl_->channel.path = std::move(path);
  impl_->channel.match_rules = std::move(match_rules);
  Fakes::channels()[name] = &impl_->channel;
}

CDBusChannel::~CDBusChannel() = default;

void CDBusChannel::register_method_callback(const std::string& member, MethodHandler handler, CDBusMemberArguments) {
  impl_->channel.registrations.push_back(member + (handler ? " set" : " empty"));
  impl_->channel.methods[member] = std::move(handler);
}

void CDBusChannel::register_signal_callback(const std::string& member, SignalHandler handler, CDBusMemberArguments) {
  impl_->channel.registrations.push_back(member + (handler ? " set" : " empty"));
  impl_->channel.signals[member] = std::move(handler);
}

void CDBusChannel::register_error_callback(ErrorHandler handler) {
  impl_->channel.registrations.push_back(std::string("error") + (handler ? " set" : " empty"));
  impl_->channel.error = std::move(handler);
}

bool CDBusChannel::start() {
  ++impl_->channel.starts;
  impl_->channel.up = World::get().bus_accepts(impl_->channel.name);
  return impl_->channel.up;
}

void CDBusChannel::stop() {
  ++impl_->channel.stops;
  impl_->channel.up = false;
}

namespace {

// Returns the call as a test reads it.
std::string describe(const std::string& member, const std::string& key, const std::string& value, bool is_protected) {
  if (member == "get_config") return "get " + key;
  if (member == "set_config") return "set " + key + "=" + value + (is_protected ? " protected" : "");
  return member == "reset_config" ? "reset" : "flush";
}

// A result of the channel, and no code of the service.
bool is_of_the_channel(int32_t result) { return result <= CDBusChannel::call_unanswerable; }

// Returns false when the call is lost.
bool answer_config(World& world, const std::string& member, CDBusRequest& request, CDBusMessageOpr& reply) {
  std::string key;
  std::string value;
  dbus_bool_t is_protected = FALSE;
  (void)request.get_string(key);
  (void)request.get_string(value);
  DBusMessageIter iterator;
  if (member == "set_config" && dbus_message_iter_init(request.message(), &iterator) != FALSE) {
    (void)dbus_message_iter_next(&iterator);
    (void)dbus_message_iter_next(&iterator);
    dbus_message_iter_get_basic(&iterator, &is_protected);
  }
  world.config_calls.push_back(describe(member, key, value, is_protected != FALSE));
  if (world.on_config_call && !world.on_config_call(world.config_calls.back())) return false;
  const auto found = world.config.find(key);
  if (member == "get_config") {
    (void)reply.set_int32(found == world.config.end() ? 100100 : 0);
    (void)reply.set_string(found == world.config.end() ? "" : found->second);
    return true;
  }
  if (member == "set_config") world.config[key] = value;
  if (member == "reset_config") world.config.clear();
  (void)reply.set_int32(world.config_write_result);
  return true;
}

}  // namespace

int32_t CDBusChannel::call(CDBusRequest& request, CDBusResponse& response, int64_t timeout_ms) {
  World& world = World::get();
  if (!world.config_answers) {
    world.advance_to(world.now_ms + timeout_ms);
    return call_timed_out;
  }
  dbus_message_set_serial(request.message(), 1);
  response = CDBusResponse(request);
  const std::string member = dbus_message_get_member(request.message());
  if (!answer_config(world, member, request, response)) return call_unanswerable;
  return member == "get_config" || !is_of_the_channel(world.config_write_result) ? 0 : world.config_write_result;
}

bool CDBusChannel::send(CDBusMessageOpr&) { return impl_->channel.up; }

}  // namespace Tessaro::Iot::Component
