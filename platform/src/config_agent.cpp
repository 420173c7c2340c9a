#include "platform/config_agent.h"

#include <utility>

#include "platform/dbus_channel.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr const char* service_name = "iot.dmp.configmanager";
constexpr const char* service_path = "/iot/dmp/configmanager";
constexpr const char* service_interface = "iot.dmp.configmanager";

CDBusRequest request_for(const char* method) {
  return CDBusRequest(service_name, service_path, service_interface, method);
}

// The service's own code, or why there was none. An answer without a code is no answer.
int32_t code_of(CDBusChannel& channel, CDBusRequest& request, CDBusResponse& response, int32_t timeout_ms) {
  const int32_t result = channel.call(request, response, timeout_ms);
  if (result < 0) return result;
  int32_t code = 0;
  return response.get_int32(code) ? code : CDBusChannel::call_failed;
}

}  // namespace

CConfigAgent::CConfigAgent(CDBusChannel* channel, std::string client_name)
    : channel_(channel), client_name_(std::move(client_name)) {}

int32_t CConfigAgent::get_config(const std::string& key, std::string& value, int32_t timeout_ms) {
  value.clear();
  CDBusRequest request = request_for("get_config");
  if (!request.set_string(key)) return refused;
  CDBusResponse response;
  const int32_t code = code_of(*channel_, request, response, timeout_ms);
  if (code == 0) (void)response.get_string(value);  // absent: the key has no value
  return code;
}

int32_t CConfigAgent::set_config(const std::string& key, const std::string& value, int32_t timeout_ms,
                                 bool is_protected) {
  CDBusRequest request = request_for("set_config");
  if (!request.set_string(key) || !request.set_string(value) || !request.set_bool(is_protected)) return refused;
  CDBusResponse response;
  return code_of(*channel_, request, response, timeout_ms);
}

int32_t CConfigAgent::reset_config(int32_t timeout_ms) {
  CDBusRequest request = request_for("reset_config");
  CDBusResponse response;
  return code_of(*channel_, request, response, timeout_ms);
}

int32_t CConfigAgent::flush_config(int32_t timeout_ms) {
  CDBusRequest request = request_for("flush_config");
  CDBusResponse response;
  return code_of(*channel_, request, response, timeout_ms);
}

}  // namespace Tessaro::Iot::Component
