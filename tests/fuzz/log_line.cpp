// A line of the logging library's file.
#include <sys/stat.h>

#include <fstream>

#include "fuzz.h"
#include "platform/log.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;

namespace {

constexpr const char* directory = "/quorvane/run/logger";
constexpr const char* path = "/quorvane/run/logger/quorvaned.log";

int64_t size_of_log() {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_size : 0;
}

std::string read_from(int64_t offset) {
  std::ifstream file(path, std::ios::binary);
  (void)file.seekg(offset);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

// Run below scripts/private-root the log has its directory; elsewhere it is not made, and the lines are dropped.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  (void)::mkdir("/quorvane/run", 0755);
  (void)::mkdir(directory, 0755);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int initialized = LLVMFuzzerInitialize(nullptr, nullptr);
  (void)initialized;
  const std::string message(Fuzz::as_text(data, size));
  const int64_t before = size_of_log();
  const auto level = static_cast<int32_t>(size % 5);
  log_print(level, "color", size % 7 == 0 ? nullptr : "tag", "path/file.cpp", "function", 1, "%s", message.c_str());
  log_flush();
  const int64_t after = size_of_log();
  if (after == 0) return 0;
  // A file that has become smaller has begun anew with this line.
  const std::string added = read_from(after < before ? 0 : before);
  Fuzz::require(added.size() > 1 && added.ends_with('\n'), "one call is one line");
  Fuzz::require(Fuzz::is_plain(std::string_view(added).substr(0, added.size() - 1)),
                "a value adds no line and no control character");
  return 0;
}
