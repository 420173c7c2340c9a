// The service catalogue, from the text of the file to what a service is started with and reported as.
#include "catalogue.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "fuzz.h"
#include "platform/json_opr.h"
#include "platform/spawn_plan.h"
#include "status_report.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;

namespace {

void check_record(ServiceRecord& record) {
  CSpawnPlan plan;
  for (const std::string& argument : record.args) plan.add_argument(argument);
  const bool all_fit = std::all_of(plan.arguments.begin(), plan.arguments.end(), [](const std::string& argument) {
    return argument.size() <= 255 && argument.find('\0') == std::string::npos;
  });
  Fuzz::require(all_fit, "an argument is at most 255 bytes and holds no NUL");
  for (const int32_t status : {status_stopped, status_started, status_abnormal}) {
    record.status = status;
    const std::string line = status_line(record);
    Fuzz::require(line.size() < 1023 && line.find('\0') == std::string::npos, "a line of the report is 1022 bytes");
  }
}

// What was read and is written again is read as the same.
void check_round_trip(const std::string& text) {
  Json::Value value;
  if (!JsonOpr::string_to_json(text, value)) return;
  for (const bool styled : {false, true}) {
    std::string written;
    Json::Value again;
    if (!JsonOpr::json_to_string(value, written, styled)) continue;
    Fuzz::require(JsonOpr::string_to_json(written, again), "what was written can be read");
  }
  (void)JsonOpr::get_json_value(value, "delay");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(Fuzz::as_text(data, size));
  std::istringstream stream(text);
  ServiceTable table;
  const bool read = read_catalogue(stream, table);
  Fuzz::require(read || table.empty(), "a catalogue that is refused adds nothing");
  for (ServiceRecord* const record : table) {
    const std::unique_ptr<ServiceRecord> owned(record);  // in the daemon they live for ever
    check_record(*record);
  }
  check_round_trip(text);
  return 0;
}
