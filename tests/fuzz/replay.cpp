// The main function of a target in an ordinary build: feeds it files, and changed copies of them.
//
// usage: TARGET DIRECTORY [COUNT SEED]
//
// COUNT copies are fed after the files of the directory, each changed in a few places, the same ones for the same SEED.
// Prints how many inputs were fed.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "fuzz.h"

namespace {

using Bytes = std::vector<char>;

void feed(const Bytes& bytes) {
  // A block of exactly that size: the address sanitizer sees a look beyond it.
  const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  (void)LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

std::vector<Bytes> read_all(const char* directory) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  std::vector<Bytes> inputs;
  for (const std::filesystem::path& path : paths) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

class Mutator {
 public:
  explicit Mutator(uint32_t seed) : dice_(seed) {}

  Bytes changed_copy(const std::vector<Bytes>& inputs) {
    Bytes bytes = inputs[below(inputs.size())];
    for (size_t change = 1 + below(4); change > 0; --change) alter(bytes, inputs[below(inputs.size())]);
    return bytes;
  }

 private:
  size_t below(size_t limit) { return dice_() % limit; }
  std::ptrdiff_t place(const Bytes& bytes) { return static_cast<std::ptrdiff_t>(below(bytes.size() + 1)); }

  void alter(Bytes& bytes, const Bytes& other) {
    const auto at = bytes.begin() + place(bytes);
    switch (below(4)) {
      case 0:
        if (at != bytes.end()) *at = static_cast<char>(dice_());
        break;
      case 1:
        bytes.insert(at, static_cast<char>(dice_()));
        break;
      case 2:
        bytes.erase(at, bytes.begin() + std::max(at - bytes.begin(), place(bytes)));
        break;
      default:
        bytes.insert(at, other.begin(), other.begin() + place(other));
    }
  }

  std::minstd_rand dice_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) return 2;
  const std::vector<Bytes> inputs = read_all(argv[1]);
  if (inputs.empty()) return 1;
  for (const Bytes& bytes : inputs) feed(bytes);
  const size_t count = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
  Mutator mutator(argc == 4 ? static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)) : 0);
  for (size_t number = 0; number < count; ++number) feed(mutator.changed_copy(inputs));
  (void)std::printf("%zu inputs\n", inputs.size() + count);
  return 0;
}
