// A service that does what its arguments say and records what is done to it.
//
// The record's name is the base name of argv[0], so that one program serves under any service name.
//
//   --name=NAME            take this bus name (retries until the bus is there)
//   --name-delay=MS        ... this long after the start
//   --feed=KEY:S:EVERY_MS  after that, feed the keep-alive KEY with S seconds, every EVERY_MS
//                          milliseconds (0: once); may be repeated
//   --feed-as=NAME         the bus name told in keep-alives (default: that of --name)
//   --broadcast            send keep-alives to everybody
//   --config=KEY=VALUE     answer as a configuration service, with this value; may be repeated. Every call
//                          is recorded
//   --config-code=N        ... with this code for every call
//   --config-silent        ... and never answer
//   --ignore-term          record SIGTERM and go on
//   --term-delay=MS        end this long after SIGTERM
//   --exit-after=MS        end by itself, with --exit-status=N or by --exit-signal=N
//   --children=N           keep N child processes alive that replace themselves every few milliseconds
//                          and record any signal that reaches one of them
//
// SIGUSR1 makes it fall silent: it feeds no keep-alive any more. Unknown arguments are ignored.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "probe_bus.h"
#include "probe_config.h"
#include "probe_record.h"

namespace {

using probe::Record;

struct Feed {
  std::string key;
  std::int32_t seconds = 0;
  long long every_ms = 0;
  long long next_ms = -1;
};

struct Options {
  std::string name;
  std::string feed_as;
  std::vector<Feed> feeds;
  probe::ConfigOptions config;
  long long name_delay_ms = 0;
  long long exit_after_ms = -1;
  long long term_delay_ms = 0;
  int exit_status = 0;
  int exit_signal = 0;
  int children = 0;
  bool broadcast = false;
  bool ignore_term = false;
};

int signal_pipe[2] = {-1, -1};

long long now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

template <typename Number>
Number to_number(std::string_view text) {
  Number value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

Feed to_feed(std::string_view text) {
  const std::size_t first = text.find(':');
  const std::size_t second = text.find(':', first + 1);
  Feed feed;
  feed.key = text.substr(0, first);
  feed.seconds = to_number<std::int32_t>(text.substr(first + 1, second - first - 1));
  feed.every_ms = second == std::string_view::npos ? 0 : to_number<long long>(text.substr(second + 1));
  return feed;
}

/// The value of "--key=value" when the argument has that key.
std::optional<std::string_view> value_of(std::string_view argument, std::string_view key) {
  if (argument.size() > key.size() && argument.substr(0, key.size()) == key && argument[key.size()] == '=') {
    return argument.substr(key.size() + 1);
  }
  return std::nullopt;
}

Options to_options(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (const auto name = value_of(argument, "--name")) {
      options.name = *name;
    } else if (const auto as = value_of(argument, "--feed-as")) {
      options.feed_as = *as;
    } else if (const auto feed = value_of(argument, "--feed")) {
      options.feeds.push_back(to_feed(*feed));
    } else if (const auto delay = value_of(argument, "--name-delay")) {
      options.name_delay_ms = to_number<long long>(*delay);
    } else if (const auto term = value_of(argument, "--term-delay")) {
      options.term_delay_ms = to_number<long long>(*term);
    } else if (const auto after = value_of(argument, "--exit-after")) {
      options.exit_after_ms = to_number<long long>(*after);
    } else if (const auto status = value_of(argument, "--exit-status")) {
      options.exit_status = to_number<int>(*status);
    } else if (const auto number = value_of(argument, "--exit-signal")) {
      options.exit_signal = to_number<int>(*number);
    } else if (const auto count = value_of(argument, "--children")) {
      options.children = to_number<int>(*count);
    } else if (const auto setting = value_of(argument, "--config")) {
      options.config.add(*setting);
    } else if (const auto code = value_of(argument, "--config-code")) {
      options.config.code = to_number<int>(*code);
    } else if (argument == "--config-silent") {
      options.config.silent = true;
    } else if (argument == "--broadcast") {
      options.broadcast = true;
    } else if (argument == "--ignore-term") {
      options.ignore_term = true;
    }
  }
  if (options.feed_as.empty()) {
    options.feed_as = options.name;
  }
  return options;
}

/// The lines of /proc/self/status that tell what was inherited.
void add_status(Record& record) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    const std::string_view text = line;
    for (const std::string_view key : {"SigBlk", "SigIgn", "SigPnd", "Umask", "Threads"}) {
      if (text.substr(0, key.size()) == key && text.size() > key.size() + 2) {
        record.text(key, text.substr(key.size() + 2));
      }
    }
  }
}

std::vector<std::string> open_descriptors() {
  std::vector<std::string> found;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) {
    return found;
  }
  const std::string own = std::to_string(dirfd(directory));
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name != own) {
      found.push_back(name + "=" + probe::read_link("/proc/self/fd/" + name));
    }
  }
  closedir(directory);
  std::sort(found.begin(), found.end());
  return found;
}

/// What the process was given by its starter. Taken first, before anything here changes it.
Record start_record(int argc, char** argv) {
  Record record("start");
  int death_signal = 0;
  prctl(PR_GET_PDEATHSIG, &death_signal);
  char cwd[4096] = "";
  if (getcwd(cwd, sizeof cwd) == nullptr) {
    cwd[0] = '\0';
  }
  const char* library_path = std::getenv("LD_LIBRARY_PATH");
  add_status(record);
  record.number("ppid", getppid())
      .number("pgid", getpgrp())
      .number("sid", getsid(0))
      .number("pdeathsig", death_signal)
      .number("policy", sched_getscheduler(0))
      .text("cwd", cwd)
      .text("exe", probe::read_link("/proc/self/exe"))
      .text("ld_library_path", library_path == nullptr ? "(unset)" : library_path)
      .list("argv", std::vector<std::string>(argv, argv + argc))
      .list("fds", open_descriptors());
  return record;
}

void on_signal(int number, siginfo_t* info, void* /*context*/) {
  const int saved = errno;
  const int message[2] = {number, info->si_pid};
  [[maybe_unused]] const ssize_t written = write(signal_pipe[1], message, sizeof message);
  errno = saved;
}

void catch_signals() {
  if (pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::_Exit(120);
  }
  struct sigaction action {};
  action.sa_sigaction = on_signal;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigfillset(&action.sa_mask);
  for (int number = 1; number < SIGSYS; ++number) {
    const bool fault = number == SIGSEGV || number == SIGILL || number == SIGBUS || number == SIGFPE;
    if (!fault && number != SIGCHLD && number != SIGKILL && number != SIGSTOP) {
      sigaction(number, &action, nullptr);
    }
  }
}

/// A process that nobody has a reason to signal: it blocks everything, lives for a few milliseconds and
/// tells when something was sent to it.
[[noreturn]] void be_innocent() {
  sigset_t every;
  sigfillset(&every);
  sigprocmask(SIG_BLOCK, &every, nullptr);
  const timespec life{0, 5000000};
  nanosleep(&life, nullptr);
  sigset_t pending;
  sigpending(&pending);
  for (int number = 1; number <= SIGSYS; ++number) {
    if (sigismember(&pending, number) == 1) {
      Record("struck").number("signal", number).write();
    }
  }
  std::_Exit(0);
}

/// Keeps the wanted number of innocent children alive. A child that was killed outright shows in its status.
class Children {
 public:
  explicit Children(int wanted) : _wanted(wanted) {}

  void renew() {
    int status = 0;
    for (pid_t ended = 0; _alive > 0 && (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
      --_alive;
      ++_ended;
      if (WIFSIGNALED(status)) {
        Record("struck").number("signal", WTERMSIG(status)).number("child", ended).write();
      }
    }
    for (; _alive < _wanted; ++_alive) {
      const pid_t child = fork();
      if (child == 0) {
        be_innocent();
      }
      if (child < 0) {
        break;
      }
    }
    if (_ended >= _reported + 1000) {
      _reported = _ended;
      Record("children").number("ended", _ended).write();
    }
  }

 private:
  int _wanted;
  int _alive = 0;
  long long _ended = 0;
  long long _reported = 0;
};

class Service {
 public:
  explicit Service(Options options) : _options(std::move(options)), _children(_options.children) {
    if (_options.config.wanted()) {
      _bus->answer_with(probe::config_service(_options.config));
    }
  }

  int run() {
    while (true) {
      read_signals();
      const long long now = now_ms();
      if (_options.exit_after_ms >= 0 && now >= _begin + _options.exit_after_ms) {
        end_by_itself();
      }
      if (_end_at >= 0 && now >= _end_at) {
        return 0;
      }
      attend_bus(now);
      if (_options.children > 0) {
        _children.renew();
      }
      wait();
    }
  }

 private:
  void read_signals() {
    int message[2];
    while (read(signal_pipe[0], message, sizeof message) == static_cast<ssize_t>(sizeof message)) {
      Record("signal").number("signal", message[0]).number("from", message[1]).write();
      if (message[0] == SIGUSR1) {
        _silent = true;
      } else if (message[0] == SIGTERM && !_options.ignore_term && _end_at < 0) {
        _end_at = now_ms() + _options.term_delay_ms;
      }
    }
  }

  [[noreturn]] void end_by_itself() {
    Record("exit").number("status", _options.exit_status).write();
    if (_options.exit_signal != 0) {
      std::signal(_options.exit_signal, SIG_DFL);
      std::raise(_options.exit_signal);
    }
    std::_Exit(_options.exit_status);
  }

  void attend_bus(long long now) {
    if ((_options.name.empty() && _options.feeds.empty()) || now < _begin + _options.name_delay_ms) {
      return;
    }
    if (!_bus->connected()) {
      if (_lost || !_bus->connect()) {
        return;
      }
      Record("bus").write();
    }
    if (!_options.name.empty() && !_named) {
      _named = _bus->own(_options.name);
      if (_named) {
        Record("name").text("name", _options.name).write();
      }
    }
    feed(now);
    if (!_bus->serve()) {
      _lost = true;
      Record("bus lost").write();
    }
  }

  void feed(long long now) {
    if (_silent) {
      return;
    }
    for (Feed& item : _options.feeds) {
      if (item.next_ms < 0 || (item.every_ms > 0 && now >= item.next_ms)) {
        _bus->feed(_options.feed_as, item.key, item.seconds, _options.broadcast);
        Record("feed").text("key", item.key).number("seconds", item.seconds).write();
        item.next_ms = now + item.every_ms;
      }
    }
  }

  /// Nothing here is urgent: signals and the bus wake it, everything else is looked at in small steps.
  void wait() const {
    pollfd watched[2] = {{signal_pipe[0], POLLIN, 0}, {_bus->descriptor(), POLLIN, 0}};
    int pause_ms = 1000;
    if (_options.children > 0) {
      pause_ms = 1;
    } else if (_options.exit_after_ms >= 0 || _end_at >= 0) {
      pause_ms = 5;
    } else if (!_options.feeds.empty() || (!_options.name.empty() && !_named && !_lost)) {
      pause_ms = 20;
    }
    poll(watched, 2, pause_ms);
  }

  Options _options;
  Children _children;
  std::unique_ptr<probe::Bus> _bus = std::make_unique<probe::Bus>();
  long long _begin = now_ms();
  long long _end_at = -1;
  bool _named = false;
  bool _silent = false;
  bool _lost = false;
};

}  // namespace

int main(int argc, char** argv) {
  Record start = start_record(argc, argv);
  probe::open_event_file(probe::base_name(argc > 0 ? argv[0] : "probe"));
  catch_signals();
  // Only now: a test that has seen this record may send a signal at once.
  start.write();
  return Service(to_options(argc, argv)).run();
}
