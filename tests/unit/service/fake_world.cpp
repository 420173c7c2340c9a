#include "fake_world.h"

#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "paths.h"
#include "platform/log.h"
#include "platform/process_host.h"
#include "platform/signal_window.h"
#include "platform/sys/clock.h"
#include "platform/sys/process.h"
#include "platform/thread.h"
#include "startup_log.h"

namespace Tessaro::Iot::Fakes {

World& World::get() {
  static World world;
  return world;
}

void World::reset() {
  const int32_t pid = next_pid;  // numbers of an earlier test may still be in the host's table
  *this = World();
  next_pid = pid;
  now_ms = 1'000'000;
  bus_accepts = [](const std::string&) { return true; };
}

void World::at_ms(int64_t when_ms, std::function<void()> event) { events_.emplace(when_ms, std::move(event)); }

bool World::advance_to_next_event(int64_t limit_ms) {
  const auto next = events_.begin();
  if (next == events_.end() || next->first > limit_ms) {
    now_ms = std::max(now_ms, limit_ms);
    return false;
  }
  now_ms = std::max(now_ms, next->first);
  const std::function<void()> event = std::move(next->second);
  events_.erase(next);
  event();
  return true;
}

void World::advance_to(int64_t when_ms) {
  while (advance_to_next_event(when_ms)) {
  }
}

void World::serve(const std::function<void(int32_t pid)>& on_ended) {
  Component::CProcessHost::instance().serve(0, [&](int32_t pid, int32_t) { on_ended(pid); });
}

size_t World::count_lines(const std::string& message) const {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), message));
}

}  // namespace Tessaro::Iot::Fakes

namespace Tessaro::Iot::Component {

using Fakes::World;

// --- time

namespace sys {

int64_t monotonic_ms() noexcept { return World::get().now_ms; }

bool wait_semaphore(sem_t* semaphore, int64_t timeout_ms) noexcept {
  const int64_t end = World::get().now_ms + timeout_ms;
  for (;;) {
    if (::sem_trywait(semaphore) == 0) return true;
    if (timeout_ms <= 0 || !World::get().advance_to_next_event(end)) break;
  }
  return ::sem_trywait(semaphore) == 0;
}

void pause_for(int64_t duration_ms) noexcept { World::get().advance_to(World::get().now_ms + duration_ms); }

// --- processes

namespace {

UniqueFd bind_bus() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy_n(Paths::bus_socket, std::string_view(Paths::bus_socket).size(), address.sun_path);
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  (void)::unlink(Paths::bus_socket);
  (void)::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return socket;
}

}  // namespace

int32_t fork_child(const CSpawnPlan& plan) {
  World& world = World::get();
  if (world.fork_fails) return -1;
  const int32_t pid = world.next_pid++;
  world.forks.push_back({pid, plan, world.now_ms});
  if (world.on_fork) world.on_fork(pid);
  if (plan.arguments.front() == "dbus-daemon") {
    // As a real one: its socket is in its place a little before it listens.
    world.at_ms(world.now_ms + std::max<int64_t>(0, world.bus_listens_after_ms - 2),
                [&world] { world.bus = bind_bus(); });
    world.at_ms(world.now_ms + world.bus_listens_after_ms, [&world] { (void)::listen(world.bus.get(), 1); });
    if (world.bus_listens_after_ms == 0) world.advance_to(world.now_ms);
  }
  return pid;
}

int32_t send_signal(int32_t pid, int32_t signal_number) noexcept {
  World::get().signals.push_back({pid, signal_number});
  return 0;
}

bool peek_ended_child(int32_t& pid, int32_t& raw_status) noexcept {
  const auto& ended = World::get().ended;
  if (ended.empty()) return false;
  pid = ended.front().first;
  raw_status = ended.front().second;
  return true;
}

bool peek_ended_child(int32_t pid) noexcept {
  const auto& ended = World::get().ended;
  return std::any_of(ended.begin(), ended.end(), [pid](const auto& child) { return child.first == pid; });
}

void reap_child(int32_t pid) noexcept {
  World& world = World::get();
  world.reaped.push_back(pid);
  std::erase_if(world.ended, [pid](const auto& child) { return child.first == pid; });
}

int32_t open_process(int32_t) noexcept { return -1; }
int32_t signal_open_process(int32_t, int32_t) noexcept { return -1; }

}  // namespace sys

namespace SignalWindow {
void open_on_this_thread(const sigset_t&) noexcept {}
int32_t poll(pollfd*, nfds_t, int64_t) noexcept { return 0; }
bool inside() noexcept { return false; }
}  // namespace SignalWindow

// --- threads

CThread::CThread(std::string name, int32_t policy, int32_t priority, uint32_t stack_size)
    : name_(std::move(name)), policy_(policy), priority_(priority), stack_size_(stack_size) {}
CThread::~CThread() = default;

bool CThread::createThread() {
  World::get().thread_events.push_back("create " + name_);
  looping_ = true;
  return !World::get().thread_creation_fails;
}
bool CThread::stopThread() {
  looping_ = false;
  World::get().thread_events.push_back("stop " + name_);
  return true;
}
void CThread::cancelThread() noexcept {
  looping_ = false;
  World::get().thread_events.push_back("cancel " + name_);
}
bool CThread::looping() const noexcept { return looping_; }
void CThread::sleep(int64_t duration_ms) noexcept { sys::pause_for(duration_ms); }

// --- logs

void append_startup_log(std::string_view line) noexcept {
  World& world = World::get();
  world.raw_lines.emplace_back(line);
  std::string message(line);
  const size_t label = message.find("] [");
  const size_t start = message.find("] ", label + 3);
  if (start != std::string::npos) message.erase(0, start + 2);
  if (!message.empty() && message.back() == '\n') message.pop_back();
  (void)std::fprintf(stderr, "%s\n", message.c_str());  // seen by the tests of a process's end
  world.lines.push_back(std::move(message));
}

int64_t startup_log_size() noexcept { return -1; }

void log_init(const char* module, int32_t to_service, int32_t lowest_level, int32_t flush_level) {
  char text[128];
  (void)std::snprintf(text, sizeof text, "log_init %s %d %d %d", module, to_service, lowest_level, flush_level);
  World::get().printed.emplace_back(text);
}

void log_print(int32_t level, const char*, const char*, const char*, const char* function, int32_t, const char* format,
               ...) {
  char message[1024];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  World::get().printed.push_back(std::to_string(level) + " " + function + ": " + message);
}

void log_flush() noexcept {}

}  // namespace Tessaro::Iot::Component
