#include "platform/json_opr.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <memory>

namespace Tessaro::Iot::Component {

namespace {

// The parser is as lenient as its defaults are, and refuses more than 1,000 nested arrays or objects by throwing.
Json::CharReaderBuilder reader_builder() {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // they would be carried along, and written again
  return builder;
}

// The member, or null when `value` is no object or has no such member.
const Json::Value* find_member(const Json::Value& value, const char* key) {
  return value.isObject() ? value.find(key, key + std::strlen(key)) : nullptr;
}

}  // namespace

bool JsonOpr::string_to_json(const std::string& text, Json::Value& value) noexcept {
  try {
    const std::unique_ptr<Json::CharReader> reader(reader_builder().newCharReader());
    Json::Value parsed;
    if (reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr)) {
      value.swap(parsed);
      return true;
    }
  } catch (...) {
    // Refused is refused, whichever way: the nesting, a number out of range, no memory for it.
  }
  value = Json::Value();
  return false;
}

bool JsonOpr::parse(std::istream& stream, Json::Value& value) noexcept {
  try {
    Json::Value parsed;
    std::string errors;
    if (Json::parseFromStream(reader_builder(), stream, &parsed, &errors)) {
      value.swap(parsed);
      return true;
    }
  } catch (...) {
    // As above; a stream may throw as well.
  }
  value = Json::Value();
  return false;
}

bool JsonOpr::json_to_string(const Json::Value& value, std::string& text, bool styled) noexcept {
  try {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = styled ? "  " : "";
    text = Json::writeString(builder, value);
    return true;
  } catch (...) {
    return false;
  }
}

std::string JsonOpr::get_json_value(const Json::Value& value, const char* key, const std::string& default_value) {
  const Json::Value* member = find_member(value, key);
  return member != nullptr && member->isString() ? member->asString() : default_value;
}

std::string JsonOpr::get_json_value(const Json::Value& value, const char* key, const char* default_value) {
  return get_json_value(value, key, std::string(default_value));
}

int32_t JsonOpr::get_json_value(const Json::Value& value, const char* key, int32_t default_value) {
  const Json::Value* member = find_member(value, key);
  return member != nullptr && member->isInt() ? member->asInt() : default_value;
}

double JsonOpr::get_json_value(const Json::Value& value, const char* key, double default_value) {
  const Json::Value* member = find_member(value, key);
  return member != nullptr && member->isDouble() ? member->asDouble() : default_value;
}

Json::Value JsonOpr::get_json_value(const Json::Value& value, const char* key) {
  const Json::Value* member = find_member(value, key);
  return member != nullptr ? *member : Json::Value();
}

bool JsonOpr::is_json_array(const Json::Value& value, const char* key) {
  const Json::Value* member = find_member(value, key);
  return member != nullptr && member->isArray();
}

}  // namespace Tessaro::Iot::Component
