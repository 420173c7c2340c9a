// Client of the gateway's configuration service.
#pragma once

#include <cstdint>
#include <string>

namespace Tessaro::Iot::Component {

class CDBusChannel;

// Every operation returns the service's own code (0 success, 100100 the key has no value), or when there was no reply
// a result of CDBusChannel::call, or `refused`: numbers near INT32_MIN, which no service has for a code.
// Context: any thread that may call CDBusChannel::call.
class CConfigAgent {
 public:
  // The key or the value is no text that the bus carries; nothing was sent.
  static constexpr int32_t refused = INT32_MIN + 4;

  // `channel` carries the calls and must outlive the agent; `client_name` is the caller's bus name.
  CConfigAgent(CDBusChannel* channel, std::string client_name);

  // Fills `value`, which is left empty when the key has none.
  int32_t get_config(const std::string& key, std::string& value, int32_t timeout_ms);
  // `is_protected` asks the service to keep the value sealed at rest.
  int32_t set_config(const std::string& key, const std::string& value, int32_t timeout_ms, bool is_protected);
  int32_t reset_config(int32_t timeout_ms);
  int32_t flush_config(int32_t timeout_ms);

 private:
  CDBusChannel* channel_;
  std::string client_name_;
};

}  // namespace Tessaro::Iot::Component
