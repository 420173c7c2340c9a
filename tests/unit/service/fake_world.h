// The world of a unit test: a clock that only moves when somebody waits, processes that are only numbers, threads that
// never run, and the lines that were logged.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/spawn_plan.h"
#include "platform/unique_fd.h"

namespace Tessaro::Iot::Fakes {

struct Fork {
  int32_t pid;
  Component::CSpawnPlan plan;
  int64_t at_ms;
};

struct Signal {
  int32_t pid;
  int32_t number;
  bool operator==(const Signal&) const = default;
};

class World {
 public:
  static World& get();

  // Forgets everything; the clock starts at second 1000.
  void reset();

  // --- time
  int64_t now_ms = 0;
  int64_t now_s() const { return now_ms / 1000; }
  // Something happens when the clock gets there.
  void at_ms(int64_t when_ms, std::function<void()> event);
  void after_s(int64_t seconds, std::function<void()> event) { at_ms(now_ms + seconds * 1000, std::move(event)); }
  // The clock moves to `when_ms`; what happens on the way happens.
  void advance_to(int64_t when_ms);
  // Moves to the next event, or to `limit_ms` if that is earlier. Returns false when the limit was reached.
  bool advance_to_next_event(int64_t limit_ms);

  // --- processes
  std::vector<Fork> forks;
  std::vector<Signal> signals;
  bool fork_fails = false;
  int32_t next_pid = 100;
  std::vector<int32_t> reaped;
  std::deque<std::pair<int32_t, int32_t>> ended;  // pid and raw status, not reaped yet
  std::map<int32_t, bool> foreign_alive;          // processes that are no children: alive or not
  // A child ends; nobody has been told yet.
  void end_child(int32_t pid, int32_t raw_status = 0) { ended.emplace_back(pid, raw_status); }
  // The main loop tells of every ended child and reaps it.
  void serve(const std::function<void(int32_t pid)>& on_ended);
  // Called for each fork, with the child's pid: what it does happens before anything is reaped.
  std::function<void(int32_t pid)> on_fork;

  // --- threads
  bool thread_creation_fails = false;
  std::vector<std::string> thread_events;  // "create NAME", "stop NAME", "cancel NAME"

  // --- logs
  std::vector<std::string> lines;      // start-up log: messages
  std::vector<std::string> raw_lines;  // start-up log: whole lines
  std::vector<std::string> printed;    // log_print: "LEVEL FUNCTION: MESSAGE"
  size_t count_lines(const std::string& message) const;

  // --- the bus
  int64_t bus_listens_after_ms = 0;  // so long after its start
  Component::UniqueFd bus;           // that listens
  std::function<bool(const std::string& channel)> bus_accepts;
  std::map<std::string, std::string> config;  // keys of the configuration service
  std::vector<std::string> config_calls;      // "get KEY", "set KEY=VALUE", "reset", "flush"
  bool config_answers = true;
  int32_t config_write_result = 0;  // of every call that changes something: the service's code, or why there was none
  // Asked for each call, already recorded; false: the call is lost.
  std::function<bool(const std::string& call)> on_config_call;

 private:
  std::multimap<int64_t, std::function<void()>> events_;
};

}  // namespace Tessaro::Iot::Fakes
