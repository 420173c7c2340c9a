// usage: command_timer PAIRS COMMAND... -- COMMAND...
// Runs both commands in turn (A B, B A, A B, ...), their output thrown away, and prints for each pair the nanoseconds
// that both took from start to end, and both exit statuses.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int warm_up = 3;

[[noreturn]] void give_up(const char* what) {
  (void)std::fprintf(stderr, "command_timer: %s\n", what);
  std::exit(1);
}

struct Run {
  long long ns = 0;
  int status = 0;
};

Run run(char** command, const posix_spawn_file_actions_t& actions) {
  const auto begin = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (::posix_spawn(&pid, command[0], &actions, nullptr, command, environ) != 0) give_up("a command cannot be run");
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) give_up("a command is lost");
  const auto end = std::chrono::steady_clock::now();
  return {std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count(),
          WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
}

}  // namespace

int main(int argc, char** argv) {
  char** second = argv + 2;
  while (argc > 2 && *second != nullptr && std::strcmp(*second, "--") != 0) ++second;
  if (argc < 5 || *second == nullptr) give_up("usage: command_timer PAIRS COMMAND... -- COMMAND...");
  *second++ = nullptr;
  char** const commands[] = {argv + 2, second};
  posix_spawn_file_actions_t actions;
  (void)::posix_spawn_file_actions_init(&actions);
  (void)::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const int pairs = std::atoi(argv[1]);
  for (int round = -warm_up; round < pairs; ++round) {
    Run runs[2];
    for (const int side : {std::abs(round) % 2, 1 - std::abs(round) % 2}) runs[side] = run(commands[side], actions);
    if (round < 0) continue;
    (void)std::printf("%lld %lld %d %d\n", runs[0].ns, runs[1].ns, runs[0].status, runs[1].status);
  }
  return 0;
}
