// Sealing of protected values under the gateway's key chain.
#pragma once

#include <string>
#include <string_view>

#include "codes.h"

namespace gateway {

// Wipes the text's memory and leaves it empty. What a text has been copied to is not reached.
void wipe(std::string& text);

// Seals and unseals. The key chain is read anew each time and wiped after it: it is in memory for no longer than it is
// needed, and one that is made or restored later is found. To be used from one thread, after sodium_init.
class Sealer {
 public:
  // `root` is the run-time root, in which the key chain and its copy are.
  explicit Sealer(std::string root) : root_(std::move(root)) {}

  // Gives the sealed bytes, different ones each time. They can be unsealed for this key only, so that values cannot be
  // exchanged in the store. `success` or `no_key_chain`.
  [[nodiscard]] Code seal(std::string_view key, std::string_view value, std::string& sealed) const;

  // Gives the value; the caller wipes it. `success`, `no_key_chain`, or `cannot_be_unsealed`.
  [[nodiscard]] Code unseal(std::string_view key, std::string_view sealed, std::string& value) const;

 private:
  std::string root_;
};

}  // namespace gateway
