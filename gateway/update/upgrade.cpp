#include "upgrade.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "files.h"
#include "journal.h"
#include "manifest.h"
#include "names.h"
#include "report.h"
#include "supervisor.h"
#include "update.h"

namespace gateway::update {
namespace {

using namespace std::chrono_literals;

// A teardown takes well below a second; the services are asked only once, and not all of them end as quickly.
constexpr auto teardown_time = 15s;
constexpr auto services_time = 5s;
constexpr auto startup_time = 60s;
constexpr auto launch_time = 10s;
// A supervisor that has its services running answers at once.
constexpr auto answer_time = 10s;
constexpr auto look_again = 2s;

bool exists(const char* path) {
  struct stat status {};
  return ::lstat(path, &status) == 0;
}

void remove_tree(const char* path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

// The update stays to be looked at; the one before it goes.
void set_update_aside() {
  if (!exists(current_update)) return;
  remove_tree(refused_update);
  (void)std::rename(current_update, refused_update);
}

void refuse(const std::string& reason) {
  set_update_aside();
  report_state("refused", reason);
}

// --- the supervisor --------------------------------------------------------------------------------------------------

bool wait_until_answers(const Supervisor& supervisor) {
  const auto end = std::chrono::steady_clock::now() + answer_time;
  do {
    if (answers(supervisor.pid())) return true;
  } while (!supervisor.wait_for_end(200ms) && std::chrono::steady_clock::now() < end);
  return false;
}

enum class Stopped { yes, no, stuck };

// Has it stop its services and its bus.
Stopped stop_services(const Supervisor& supervisor, std::string& problem) {
  Bus bus;
  if (!bus.connect(problem)) return Stopped::no;
  if (bus.supervisor_pid() != supervisor.pid()) {
    problem = "the supervisor is not on the bus";
    return Stopped::no;
  }
  const Bus::Answer answer = bus.call("start_upgrade", problem);
  if (answer == Bus::Answer::no) return Stopped::no;
  bool lost = bus.wait_until_lost(teardown_time);
  if (!lost && answer == Bus::Answer::unclear && answers(supervisor.pid())) {
    // It has answered what came later, so it has heard this as well, or never will.
    lost = bus.wait_until_lost(look_again);
    if (!lost) return Stopped::no;
  }
  if (!lost) {
    problem = "the services were not stopped in time";
    return Stopped::stuck;
  }
  if (!supervisor.wait_for_services(services_time)) report_note("some services take long to end");
  return Stopped::yes;
}

bool come_up(const Supervisor& supervisor, std::string& problem) {
  switch (supervisor.wait_until_up(startup_time)) {
    case Supervisor::Comes::up:
      return true;
    case Supervisor::Comes::ended:
      problem = "the supervisor has ended";
      return false;
    case Supervisor::Comes::silent:
      problem = "the supervisor does not answer";
      return false;
  }
  return false;
}

bool restart(const Supervisor& supervisor, std::string& problem) {
  if (!supervisor.signal(SIGUSR2)) {
    problem = "the supervisor had ended";
    return false;
  }
  return come_up(supervisor, problem);
}

bool start(const std::string& root, std::string& problem) {
  report_note("starting the supervisor");
  if (!launch(root)) {
    problem = error_text("starting the supervisor");
    return false;
  }
  std::optional<Supervisor> supervisor;
  for (const auto end = std::chrono::steady_clock::now() + launch_time; std::chrono::steady_clock::now() < end;) {
    if (Supervisor::find(root, supervisor) == Supervisor::Found::ours) return come_up(*supervisor, problem);
    std::this_thread::sleep_for(50ms);
  }
  problem = "the supervisor has not started";
  return false;
}

// --- the way back ----------------------------------------------------------------------------------------------------

// What the supervisor has to do with the old files, once they are back.
enum class Revival {
  as_needed,  // it runs with them, or waits to be signalled
  signal,     // it waits to be signalled
  anew,       // it may have been started with some of the new ones
  fresh,      // it is not to be trusted: an end and a start
};

bool revive(const std::string& root, Revival way, std::string& problem) {
  std::optional<Supervisor> supervisor;
  const auto found = Supervisor::find(root, supervisor);
  if (found == Supervisor::Found::foreign) {
    problem = "another program holds the supervisor's pid file";
    return false;
  }
  if (found == Supervisor::Found::none) return start(root, problem);
  if (way == Revival::fresh) {
    supervisor->end();
    return start(root, problem);
  }
  if (way != Revival::signal && wait_until_answers(*supervisor)) {
    if (way == Revival::as_needed) return true;
    if (stop_services(*supervisor, problem) == Stopped::no) return false;
  }
  return restart(*supervisor, problem) || (supervisor->end(), start(root, problem));
}

// Puts the old files back and has the supervisor run with them.
void roll_back(const Plan& plan, const Journal& journal, Revival way, const std::string& reason) {
  report_state("restoring", reason);
  std::string problem;
  // First of all: should this be interrupted, it has to be gone on with.
  bool whole = journal.reach(Phase::swapping, problem);
  whole = undo(plan, problem) && whole;
  set_update_aside();
  if (!whole) report_note(problem);
  std::string trouble;
  const bool revived = revive(plan.root, way, trouble);
  if (whole && revived) {
    report_state("rolled-back", reason);
  } else {
    report_state("failed", reason + "; " + (whole ? trouble : problem));
  }
  // Last of all, and kept when files could not be put back: the next start of this program tries again.
  if (whole) journal.end();
}

// --- the steps -------------------------------------------------------------------------------------------------------

void finish(const Plan& plan, const Journal& journal) {
  std::string problem;
  // Before the first old file goes: there is no way back from then on.
  if (!journal.reach(Phase::done, problem)) return roll_back(plan, journal, Revival::anew, problem);
  forget_old(plan);
  remove_tree(current_update);
  report_state("done");
  journal.end();
}

// From the moment that the files are in place and the supervisor waits for the signal.
void restart_and_confirm(const Supervisor& supervisor, const Plan& plan, const Journal& journal) {
  report_state("restarting");
  std::string problem;
  if (restart(supervisor, problem)) return finish(plan, journal);
  // The pid file may be held by a program that does not look like the supervisor: what was put in its place.
  supervisor.end();
  roll_back(plan, journal, Revival::fresh, problem);
}

void install(const Supervisor& supervisor, const Plan& plan, const Journal& journal) {
  report_state("installing");
  std::string problem;
  if (!journal.reach(Phase::swapping, problem) || !swap(plan, problem) || !journal.reach(Phase::swapped, problem)) {
    return roll_back(plan, journal, Revival::signal, problem);
  }
  restart_and_confirm(supervisor, plan, journal);
}

// With the new files beside their places.
void upgrade(const Plan& plan, const Journal& journal) {
  report_state("stopping");
  std::string problem = "no supervisor of this installation runs";
  std::optional<Supervisor> supervisor;
  auto stopped = Stopped::no;
  if (Supervisor::find(plan.root, supervisor) == Supervisor::Found::ours) stopped = stop_services(*supervisor, problem);
  switch (stopped) {
    case Stopped::yes:
      return install(*supervisor, plan, journal);
    case Stopped::stuck:
      return roll_back(plan, journal, Revival::fresh, problem);
    case Stopped::no:
      unstage(plan);
      journal.end();
      refuse(problem);
  }
}

}  // namespace

bool carry_out_update(const std::string& root) {
  if (!exists(waiting_update)) return false;
  remove_tree(current_update);
  if (std::rename(waiting_update, current_update) != 0) return false;
  report_state("verifying");
  std::string problem;
  const auto entries = verify(current_update, problem);
  const auto plan = entries ? make_plan(root, *entries, problem) : std::nullopt;
  if (!plan) {
    refuse(problem);
    return true;
  }
  report_state("copying");
  const Journal journal(journal_file);
  if (!journal.begin(*plan, problem)) {
    refuse(problem);
  } else if (!stage(current_update, *entries, *plan, problem)) {
    journal.end();
    refuse(problem);
  } else {
    upgrade(*plan, journal);
  }
  return true;
}

namespace {

// All files have been replaced, and whether the supervisor has been restarted is not known.
void confirm_late(const Plan& plan, const Journal& journal) {
  report_state("restarting");
  std::optional<Supervisor> supervisor;
  std::string problem = "the supervisor has ended";
  if (Supervisor::find(plan.root, supervisor) == Supervisor::Found::ours) {
    if (!wait_until_answers(*supervisor)) return restart_and_confirm(*supervisor, plan, journal);
    // It has been started since: while it waits for the signal there is no bus.
    if (come_up(*supervisor, problem)) return finish(plan, journal);
  }
  roll_back(plan, journal, Revival::fresh, problem);
}

}  // namespace

void recover(const std::string& root) {
  constexpr const char* interrupted = "it was interrupted";
  const Journal journal(journal_file);
  Journal::Content content;
  const auto state = journal.read(content);
  if (state == Journal::State::missing) {
    if (exists(current_update)) refuse(interrupted);
    return;
  }
  if (state == Journal::State::damaged || content.plan.root != root) {
    report_note("the journal is damaged, or another installation's");
    journal.set_aside();
    return;
  }
  report_note("an update was interrupted");
  std::string problem;
  switch (content.phase) {
    case Phase::staged:
      unstage(content.plan);
      if (!revive(root, Revival::as_needed, problem)) report_note(problem);
      journal.end();
      return refuse(interrupted);
    case Phase::swapping:
      return roll_back(content.plan, journal, Revival::anew, interrupted);
    case Phase::swapped:
      return confirm_late(content.plan, journal);
    case Phase::done:
      return finish(content.plan, journal);
  }
}

}  // namespace gateway::update
