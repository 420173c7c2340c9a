// usage: scan_timer PAIRS NAME | scan_timer NAME
// Looks for the processes of the program NAME below its own install root by the daemon's scan and by a bare loop, in
// turn (A B, B A, A B, ...), and prints for each pair the nanoseconds of both and how many they found. With NAME alone:
// one scan, whose pids it prints, as pidof does.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bare_scan.h"
#include "install_root.h"
#include "process_scan.h"

namespace {

using namespace Tessaro::Iot::Component;

constexpr int warm_up = 2;

struct Scan {
  long long ns = 0;
  size_t found = 0;
};

size_t scan_ours(const std::string& name) {
  std::vector<int32_t> pids;
  return find_processes_by_name(name, pids) ? pids.size() : 0;
}

size_t scan_bare(const std::string& name) {
  std::array<int, 64> pids{};
  const std::string root = get_install_root() + "/";
  return bare_scan(root.c_str(), name.c_str(), get_mount_namespace().c_str(), pids.data(), pids.size());
}

Scan timed(size_t (*scan)(const std::string&), const std::string& name) {
  const auto begin = std::chrono::steady_clock::now();
  const size_t found = scan(name);
  const auto end = std::chrono::steady_clock::now();
  return {std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count(), found};
}

int scan_once(const std::string& name) {
  std::vector<int32_t> pids;
  if (!find_processes_by_name(name, pids)) return 1;
  for (const int32_t pid : pids) (void)std::printf("%d\n", pid);
  return pids.empty() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) return scan_once(argv[1]);
  if (argc != 3) {
    (void)std::fputs("usage: scan_timer PAIRS NAME | scan_timer NAME\n", stderr);
    return 2;
  }
  const int pairs = std::stoi(argv[1]);
  for (int round = -warm_up; round < pairs; ++round) {
    std::array<Scan, 2> scans;
    for (const int side : {std::abs(round) % 2, 1 - std::abs(round) % 2}) {
      scans.at(static_cast<size_t>(side)) = timed(side == 0 ? scan_ours : scan_bare, argv[2]);
    }
    if (round < 0) continue;
    (void)std::printf("%lld %lld %zu %zu\n", scans[0].ns, scans[1].ns, scans[0].found, scans[1].found);
  }
  return 0;
}
