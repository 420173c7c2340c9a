// A line of the start-up log. The first byte says how much of the rest is the name of a source file; the message is the
// rest of it.
#include "startup_log.h"

#include "fake_world.h"
#include "fuzz.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;

namespace {

constexpr size_t longest_line = 1022;

void check_line(const std::string& line) {
  Fuzz::require(line.size() <= longest_line, "a line is at most 1022 bytes");
  std::string_view text = line;
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  } else {
    Fuzz::require(line.size() == longest_line, "a line that is not cut ends with a newline");
  }
  Fuzz::require(Fuzz::is_plain(text), "a value adds no line and no control character");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Fuzz::silence_stderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int initialized = LLVMFuzzerInitialize(nullptr, nullptr);
  (void)initialized;
  Fakes::World& world = Fakes::World::get();
  world.reset();
  const std::string_view text = Fuzz::as_text(data, size);
  const size_t name_length = size == 0 ? 0 : data[0] % 32;
  // Names of source files come from the compiler: they hold no control characters.
  std::string name(text.substr(size == 0 ? 0 : 1, name_length));
  if (!Fuzz::is_plain(name)) name = "path/to/a file.cpp";
  const std::string message(text.substr(std::min(text.size(), name_length + 1)));
  const auto line = static_cast<int32_t>(size * 2654435761U);
  write_startup_log(name.c_str(), line, "%s", message.c_str());
  write_startup_log(name.c_str(), line, "values %d %u %.*s|%s", line, static_cast<uint32_t>(size),
                    static_cast<int>(message.size()), message.c_str(), message.c_str());
  write_startup_log_in_handler(name.c_str(), line, message);
  learn_time_zone();
  Fuzz::require(world.raw_lines.size() == 3, "one call is one line");
  for (const std::string& written : world.raw_lines) check_line(written);
  return 0;
}
