// What the fuzz targets share. A target is one function that is fed any bytes, and aborts when a promise is broken:
// libFuzzer looks for such bytes, and what it found stays in corpus/, which every ordinary build replays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace Tessaro::Iot::Fuzz {

// Aborts, naming the promise, unless it is kept.
inline void require(bool kept, const char* promise) noexcept {
  if (kept) return;
  (void)std::fprintf(stdout, "broken: %s\n", promise);
  (void)std::fflush(stdout);
  std::abort();
}

inline std::string_view as_text(const uint8_t* data, size_t size) noexcept {
  return {reinterpret_cast<const char*>(data), size};
}

// True for text without control characters, those of two bytes (U+0080 to U+009F) included.
inline bool is_plain(std::string_view text) noexcept {
  for (size_t index = 0; index < text.size(); ++index) {
    const auto byte = static_cast<uint8_t>(text[index]);
    if (byte < 0x20 || byte == 0x7F) return false;
    if (byte != 0xC2 || index + 1 == text.size()) continue;
    const auto next = static_cast<uint8_t>(text[index + 1]);
    if (next >= 0x80 && next <= 0x9F) return false;
  }
  return true;
}

// The fakes tell every line on stderr. Sanitizers write to the descriptor, which stays as it is.
inline void silence_stderr() noexcept {
  std::FILE* const sink = std::fopen("/dev/null", "we");
  if (sink != nullptr) stderr = sink;
}

}  // namespace Tessaro::Iot::Fuzz
