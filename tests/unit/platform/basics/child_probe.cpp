// Writes what a program finds itself with into the file named by its first argument, one "key value" a line. The file
// appears whole.
#include <dirent.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

void write_arguments(std::ostream& out, int count, char** arguments) {
  out << "argc " << count << '\n';
  for (int index = 0; index < count; ++index) out << "argv" << index << ' ' << arguments[index] << '\n';
}

void write_descriptors(std::ostream& out) {
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return;
  while (const dirent* entry = ::readdir(directory)) {
    if (std::atoi(entry->d_name) == ::dirfd(directory) || entry->d_name[0] == '.') continue;
    std::array<char, 256> target{};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (::readlink(link.c_str(), target.data(), target.size() - 1) > 0) {
      out << "fd" << entry->d_name << ' ' << target.data() << '\n';
    }
  }
  (void)::closedir(directory);  // nothing can be done about it
}

void write_status(std::ostream& out) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    const size_t colon = line.find(':');
    const std::string key = line.substr(0, colon);
    if (key == "SigBlk" || key == "SigIgn" || key == "SigPnd" || key == "ShdPnd") {
      out << key << ' ' << line.substr(colon + 2) << '\n';
    }
  }
}

void write_environment(std::ostream& out, char** environment) {
  for (char** entry = environment; *entry != nullptr; ++entry) out << "env " << *entry << '\n';
}

void write_rest(std::ostream& out) {
  int death_signal = -1;
  (void)::prctl(PR_GET_PDEATHSIG, &death_signal);  // stays -1
  std::array<char, 4096> directory{};
  const mode_t mask = ::umask(0);
  out << "pid " << ::getpid() << "\nparent " << ::getppid() << "\ndeath_signal " << death_signal << "\numask "
      << std::oct << mask << std::dec << "\ncwd " << ::getcwd(directory.data(), directory.size()) << '\n';
}

}  // namespace

int main(int count, char** arguments, char** environment) {
  if (count < 2) return 1;
  std::ostringstream out;
  write_arguments(out, count, arguments);
  write_descriptors(out);
  write_status(out);
  write_environment(out, environment);
  write_rest(out);
  const std::string path = arguments[1];
  std::ofstream(path + ".new") << out.str();
  return std::rename((path + ".new").c_str(), path.c_str()) == 0 ? 0 : 1;
}
