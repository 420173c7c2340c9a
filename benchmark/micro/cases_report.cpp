// The service table: its report, and a keep-alive.
#include <benchmark/benchmark.h>

#include <string>

#include "cases.h"
#include "shared.h"

namespace Micro {

using namespace Tessaro::Iot::Component;

namespace {

Call prepare_report(int services) {
  return {[manager = manager_of(services)] {
    std::string report;
    manager->get_status(report);
    benchmark::DoNotOptimize(report.data());
  }};
}

// The service in the middle of the table.
Call prepare_feeding(int services) {
  return {[manager = manager_of(services), name = "iot.gateway.s" + std::to_string(services / 2),
           item = std::string("main")] { manager->feed_dog(name, item, 15); }};
}

}  // namespace

Cases report_cases() {
  return {{"report of 20 services", 100, [] { return prepare_report(20); }},
          {"report of 1000 services", 5, [] { return prepare_report(1000); }},
          {"keep-alive of one of 20 services", 200, [] { return prepare_feeding(20); }},
          {"keep-alive of one of 1000 services", 100, [] { return prepare_feeding(1000); }}};
}

}  // namespace Micro
