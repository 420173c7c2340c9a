// JSON helpers: the one place where jsoncpp's exceptions end.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <istream>
#include <string>

namespace Tessaro::Iot::Component {

class JsonOpr {
 public:
  // Parses one JSON text. Returns false, leaving `value` null, for text that is not JSON or that the parser refuses,
  // however it refuses it.
  // Context: any thread.
  [[nodiscard]] static bool string_to_json(const std::string& text, Json::Value& value) noexcept;

  // The same for a stream.
  [[nodiscard]] static bool parse(std::istream& stream, Json::Value& value) noexcept;

  // Writes `value` into `text`, on one line, or indented when `styled`. Returns false when it cannot be written.
  // Context: any thread.
  static bool json_to_string(const Json::Value& value, std::string& text, bool styled) noexcept;

  // The member `key` of `value` when `value` is an object and the member has the type of the default, else the default.
  // A whole number counts as an int (1.0 is 1) when it fits; any number counts as a double; true and false are neither.
  // Context: any thread.
  [[nodiscard]] static std::string get_json_value(const Json::Value& value, const char* key,
                                                  const std::string& default_value);
  [[nodiscard]] static std::string get_json_value(const Json::Value& value, const char* key, const char* default_value);
  [[nodiscard]] static int32_t get_json_value(const Json::Value& value, const char* key, int32_t default_value);
  [[nodiscard]] static double get_json_value(const Json::Value& value, const char* key, double default_value);

  // The member `key` as it is; null when there is none.
  [[nodiscard]] static Json::Value get_json_value(const Json::Value& value, const char* key);

  // True when `value` is an object whose member `key` is an array.
  [[nodiscard]] static bool is_json_array(const Json::Value& value, const char* key);
};

}  // namespace Tessaro::Iot::Component
