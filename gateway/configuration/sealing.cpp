#include "sealing.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "key_chain.h"

namespace gateway {
namespace {

constexpr std::size_t nonce_size = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t tag_size = crypto_aead_xchacha20poly1305_ietf_ABYTES;
// The key chain's secret serves other purposes as well: each has a key of its own, told by these eight letters.
constexpr char purpose[crypto_kdf_CONTEXTBYTES + 1] = "configrt";
static_assert(key_size == crypto_kdf_KEYBYTES);

unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }
const unsigned char* bytes(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

// A key that does not outlive its use.
class SealingKey {
 public:
  explicit SealingKey(Key& secret) { crypto_kdf_derive_from_key(key_.data(), key_.size(), 1, purpose, secret.data()); }
  ~SealingKey() { sodium_memzero(key_.data(), key_.size()); }
  SealingKey(const SealingKey&) = delete;
  SealingKey& operator=(const SealingKey&) = delete;
  [[nodiscard]] const unsigned char* data() const { return key_.data(); }

 private:
  std::array<unsigned char, crypto_aead_xchacha20poly1305_ietf_KEYBYTES> key_{};
};

// The key of the file; none when it is missing or damaged.
std::optional<Key> read_key_chain(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) return std::nullopt;
  std::array<char, 4096> text{};
  const ssize_t count = ::read(file, text.data(), text.size());
  ::close(file);
  std::optional<Key> key;
  if (count > 0) key = parse_key_chain({text.data(), static_cast<std::size_t>(count)});
  sodium_memzero(text.data(), text.size());
  return key;
}

// Calls `use` with the sealing key. False when there is no key chain.
template <class Use>
bool with_key(const std::string& root, Use use) {
  auto secret = read_key_chain(root + "/.security/keychain");
  if (!secret) secret = read_key_chain(root + "/.sec_bak/keychain");
  if (!secret) return false;
  const SealingKey key(*secret);
  sodium_memzero(secret->data(), secret->size());
  use(key.data());
  return true;
}

}  // namespace

void wipe(std::string& text) {
  // The whole capacity: a text that has been shortened still has its old end behind it.
  text.resize(text.capacity());
  sodium_memzero(text.data(), text.size());
  text.clear();
}

Code Sealer::seal(std::string_view key, std::string_view value, std::string& sealed) const {
  const bool done = with_key(root_, [&](const unsigned char* sealing_key) {
    sealed.resize(nonce_size + value.size() + tag_size);
    unsigned char* const out = bytes(sealed);
    randombytes_buf(out, nonce_size);
    crypto_aead_xchacha20poly1305_ietf_encrypt(out + nonce_size, nullptr, bytes(value), value.size(), bytes(key),
                                               key.size(), nullptr, out, sealing_key);
  });
  return done ? Code::success : Code::no_key_chain;
}

Code Sealer::unseal(std::string_view key, std::string_view sealed, std::string& value) const {
  if (sealed.size() < nonce_size + tag_size) return Code::cannot_be_unsealed;
  bool whole = false;
  const bool done = with_key(root_, [&](const unsigned char* sealing_key) {
    value.resize(sealed.size() - nonce_size - tag_size);
    const unsigned char* const in = bytes(sealed);
    whole = crypto_aead_xchacha20poly1305_ietf_decrypt(bytes(value), nullptr, nullptr, in + nonce_size,
                                                       sealed.size() - nonce_size, bytes(key), key.size(), in,
                                                       sealing_key) == 0;
  });
  if (whole) return Code::success;
  wipe(value);
  return done ? Code::cannot_be_unsealed : Code::no_key_chain;
}

}  // namespace gateway
