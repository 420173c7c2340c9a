#include "module_file.h"

#include <sodium.h>

#include <array>

namespace gateway {
namespace {

constexpr std::size_t longest_name = 64;
constexpr std::size_t digest_bytes = crypto_generichash_BYTES_MIN;

bool is_plain(char byte, bool first) {
  const bool alphanumeric =
      (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
  return alphanumeric || byte == '_' || byte == '-' || (byte == '.' && !first);
}

template <std::size_t size>
std::string hexadecimal(const std::array<unsigned char, size>& bytes) {
  std::array<char, 2 * size + 1> digits{};
  return sodium_bin2hex(digits.data(), digits.size(), bytes.data(), bytes.size());
}

// As many bytes of it as make `limit` characters or a little more: a name may be of any size.
std::string escaped(std::string_view name, std::size_t limit) {
  std::string result;
  for (std::size_t at = 0; at < name.size() && result.size() <= limit; ++at) {
    if (is_plain(name[at], at == 0)) {
      result += name[at];
      continue;
    }
    result += '%' + hexadecimal<1>({static_cast<unsigned char>(name[at])});
  }
  return result;
}

std::string digest(std::string_view name) {
  std::array<unsigned char, digest_bytes> hash{};
  // Fails only for sizes out of its range.
  (void)crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const unsigned char*>(name.data()), name.size(),
                           nullptr, 0);
  return hexadecimal(hash);
}

}  // namespace

std::string module_file(std::string_view module) {
  // What follows a '%' tells the names apart: two digits, or one of these two, which are none.
  if (module.empty()) return "%empty.log";
  const std::string name = escaped(module, longest_name);
  if (name.size() <= longest_name) return name + ".log";
  return name.substr(0, longest_name) + "%~" + digest(module) + ".log";
}

}  // namespace gateway
