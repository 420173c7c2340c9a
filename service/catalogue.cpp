#include "catalogue.h"

#include <memory>

#include "platform/json_opr.h"

namespace Tessaro::Iot::Component {

namespace {

void read_arguments(const Json::Value& element, std::list<std::string>& arguments) {
  if (!JsonOpr::is_json_array(element, "args")) return;
  for (const Json::Value& item : JsonOpr::get_json_value(element, "args")) {
    if (item.isConvertibleTo(Json::stringValue)) arguments.push_back(item.asString());  // no objects, no arrays
  }
}

ServiceRecord* read_record(const Json::Value& element) {
  auto record = std::make_unique<ServiceRecord>();
  record->exec = JsonOpr::get_json_value(element, "exec", "");
  read_arguments(element, record->args);
  record->monitor = JsonOpr::get_json_value(element, "monitor", 0);
  record->delay = JsonOpr::get_json_value(element, "delay", 0.0);
  record->dbus_name = JsonOpr::get_json_value(element, "dbus_name", "");
  return record.release();
}

}  // namespace

bool read_catalogue(std::istream& stream, ServiceTable& table) {
  Json::Value root;
  if (!JsonOpr::parse(stream, root) || !root.isArray()) return false;
  table.reserve(root.size());
  for (const Json::Value& element : root) table.push_back(read_record(element));
  return true;
}

}  // namespace Tessaro::Iot::Component
