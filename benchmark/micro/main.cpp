// usage: micro [OPTION of Google Benchmark]...
//        micro --counted [PART]
// Without "--counted" it times each case. With it, it makes a fixed number of calls of each case whose name contains
// PART and prints that number and the name: under callgrind, which counts in `counted_calls` alone and dumps when that
// is left, there is one dump for each line.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "cases.h"

// What callgrind knows by its name: it must neither be inlined nor have a C++ name.
extern "C" __attribute__((noinline)) void counted_calls(const std::function<void()>* call, int count) {
  for (int number = 0; number < count; ++number) (*call)();
}

namespace {

using namespace Micro;

constexpr int calls_before_counting = 3;
constexpr int calls_with_something_before = 1000;  // as many as take half a second would take minutes with it

Cases all_cases() {
  Cases all;
  for (Cases (*const some)() : {log_cases, parse_cases, report_cases, process_cases, supervision_cases}) {
    for (Case& one : some()) all.push_back(std::move(one));
  }
  return all;
}

// What the daemon itself would have made.
void make_directories() {
  std::filesystem::create_directories("/quorvane/run/startup");
  std::filesystem::create_directories("/quorvane/run/logger");
}

void make_ready(const Call& call) {
  if (call.before) call.before();
}

int count(const char* part) {
  for (const Case& one : all_cases()) {
    if (one.name.find(part) == std::string::npos) continue;
    const Call call = one.prepare();
    // What happens once only, such as the first use of a library's function, is not counted.
    for (int number = 0; number < calls_before_counting; ++number) {
      make_ready(call);
      call.run();
    }
    make_ready(call);
    counted_calls(&call.run, one.counted_calls);
    (void)std::printf("%d\t%s\n", one.counted_calls, one.name.c_str());
    (void)std::fflush(stdout);
  }
  return 0;
}

int time(int argc, char** argv) {
  for (const Case& one : all_cases()) {
    auto* const registered =
        benchmark::RegisterBenchmark(one.name.c_str(), [prepare = one.prepare](benchmark::State& state) {
          const Call call = prepare();
          for (auto turn : state) {
            (void)turn;
            if (call.before) {
              state.PauseTiming();
              call.before();
              state.ResumeTiming();
            }
            call.run();
          }
        });
    registered->UseRealTime();  // the kernel's and the children's share count too
    if (one.counted_calls == 1) registered->Iterations(calls_with_something_before);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  (void)benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  make_directories();
  if (argc > 1 && std::strcmp(argv[1], "--counted") == 0) return count(argc > 2 ? argv[2] : "");
  return time(argc, argv);
}
