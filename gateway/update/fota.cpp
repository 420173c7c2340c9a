// fota: carries out updates of the whole installation, the supervisor included.
//
// The supervisor never stops it, not even when it is replaced itself. It is not on the bus, which comes and goes under
// it. There is only one: the supervisor starts another with every new image of itself, which ends at once.
//
// usage: fota
#include <fcntl.h>
#include <poll.h>
#include <sodium.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "descriptor.h"
#include "files.h"
#include "names.h"
#include "report.h"
#include "upgrade.h"

namespace {

using gateway::Descriptor;

constexpr int look_ms = 1000;

// The directory above that of the program.
std::string install_root() {
  char path[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
  if (size <= 0) return {};
  const std::string_view program(path, static_cast<std::size_t>(size));
  return std::string(program.substr(0, program.rfind('/', program.rfind('/') - 1)));
}

// Held as long as the process lives. Not valid when another one has it.
Descriptor take_lock() {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(gateway::update::lock_file).parent_path(), ignored);
  Descriptor lock(::open(gateway::update::lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (lock.valid() && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return Descriptor();
  return lock;
}

// The requests to stop, as a descriptor: they are taken between updates only.
Descriptor take_stop_signals() {
  sigset_t stop;
  (void)::sigemptyset(&stop);
  (void)::sigaddset(&stop, SIGTERM);
  (void)::sigaddset(&stop, SIGINT);
  (void)::sigprocmask(SIG_BLOCK, &stop, nullptr);
  for (const int number : {SIGHUP, SIGPIPE}) (void)::signal(number, SIG_IGN);
  return Descriptor(::signalfd(-1, &stop, SFD_CLOEXEC));
}

// Goes on as the program that an update has put in its own place, if it has.
void become_installed(const std::string& root) {
  const std::string program = root + "/bin/fota";
  struct stat own {};
  struct stat installed {};
  if (::stat("/proc/self/exe", &own) != 0 || ::stat(program.c_str(), &installed) != 0) return;
  if (own.st_dev == installed.st_dev && own.st_ino == installed.st_ino) return;
  (void)::execl(program.c_str(), "fota", static_cast<char*>(nullptr));
  gateway::update::report_note(gateway::update::error_text("going on with the old " + program));
}

}  // namespace

int main() {
  ::umask(022);
  const Descriptor stop = take_stop_signals();
  const Descriptor lock = take_lock();
  if (!lock.valid()) return EXIT_SUCCESS;
  const std::string root = install_root();
  if (root.empty() || !stop.valid() || sodium_init() < 0) return EXIT_FAILURE;

  gateway::update::recover(root);
  // How the last update ended stays to be seen.
  if (!gateway::update::is_state_final()) gateway::update::report_state("idle");
  for (;;) {
    pollfd request{stop.get(), POLLIN, 0};
    if (::poll(&request, 1, look_ms) > 0) return EXIT_SUCCESS;
    if (gateway::update::carry_out_update(root)) become_installed(root);
  }
}
