// What comes from outside as JSON: the catalogue, the body of a request.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "cases.h"
#include "catalogue.h"
#include "catalogue_text.h"
#include "platform/json_opr.h"

namespace Micro {

using namespace Tessaro::Iot::Component;

namespace {

Call prepare_catalogue(int services) {
  return {[text = catalogue_text(services)] {
    std::istringstream stream(text);
    ServiceTable table;
    if (!read_catalogue(stream, table)) std::abort();
    benchmark::DoNotOptimize(table.data());
    for (const ServiceRecord* record : table) delete record;
  }};
}

void read_identity(const std::string& text) {
  Json::Value body;
  if (!JsonOpr::string_to_json(text, body)) std::abort();
  for (const char* key : {"productkey", "devicename", "devicesecret"}) {
    benchmark::DoNotOptimize(JsonOpr::get_json_value(body, key, ""));
  }
}

Call prepare_identity() {
  return {[text = std::string(R"({"productkey":"a1b2c3d4e5f","devicename":"gateway-000042",)"
                              R"("devicesecret":"0123456789abcdef0123456789abcdef"})")] { read_identity(text); }};
}

}  // namespace

Cases parse_cases() {
  return {{"catalogue of 20 services", 20, [] { return prepare_catalogue(20); }},
          {"catalogue of 1000 services", 2, [] { return prepare_catalogue(1000); }},
          {"body of a request", 100, prepare_identity}};
}

}  // namespace Micro
