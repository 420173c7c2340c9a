// The argument list of the command: words with a NUL between them.
#include "arguments.h"

#include <vector>

#include "fuzz.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Quorvaned;

namespace {

constexpr size_t most_words = 40;
constexpr size_t secret_position = 3;

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> words{"quorvaned"};
  while (words.size() < most_words) {
    const size_t end = text.find('\0');
    words.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return words;
}

void check_taken(const std::vector<std::string>& words, const StartRequest& request) {
  std::vector<std::string> copies = words;
  std::vector<char*> argv;
  for (std::string& word : copies) argv.push_back(word.data());
  argv.push_back(nullptr);
  const ServiceArguments taken = take_service_arguments(request, static_cast<int32_t>(words.size()), argv.data());
  for (size_t position = 1; position < words.size(); ++position) {
    const bool is_secret = position == secret_position && request.legal_count >= 3;
    Fuzz::require(copies[position] == (is_secret ? std::string(words[position].size(), '*') : words[position]),
                  "the secret alone is masked");
  }
  for (size_t index = 0; index < taken.size(); ++index) {
    const bool given = index < static_cast<size_t>(request.legal_count) && index + 1 < words.size();
    Fuzz::require(taken[index] == (given ? words[index + 1] : ""), "a word is taken by its place");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = Fuzz::as_text(data, size);
  const std::vector<std::string> words = text.empty() ? std::vector<std::string>{"quorvaned"} : split(text);
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  argv.push_back(nullptr);
  const auto argc = static_cast<int32_t>(words.size());
  const Mode mode = mode_of(argc, argv.data());
  Fuzz::require(argc == 2 || mode == Mode::start, "only a sole word is a command");
  const StartRequest request = read_start_request(argc, argv.data());
  Fuzz::require(request.legal_count == argc - 1 - (request.nofork ? 1 : 0), "every other word is counted");
  if (mode == Mode::start && request.is_legal()) check_taken(words, request);
  return 0;
}
