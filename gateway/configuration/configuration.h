// The configuration: named values, some of them protected. What the bus offers, without the bus.
#pragma once

#include <string>
#include <string_view>

#include "sealing.h"
#include "store.h"

namespace gateway {

inline constexpr std::size_t key_limit = 255;      // bytes
inline constexpr std::size_t value_limit = 65536;  // bytes

// Nothing but std::bad_alloc is thrown. To be used from one thread, after sodium_init.
class Configuration {
 public:
  // `root` is the run-time root: the store is in "config-manager" below it, the key chain where it always is.
  Configuration(const std::string& root, Store::Report report)
      : store_(root + "/config-manager", std::move(report)), sealer_(root) {}

  // Gives the value; after a failure it is empty. The caller wipes it.
  [[nodiscard]] Code get(std::string_view key, std::string& value);
  // An empty value is a value. `is_protected`: it is stored sealed, and nothing of it in clear.
  [[nodiscard]] Code set(std::string_view key, std::string_view value, bool is_protected);

  // The store, for everything that has nothing to do with single values.
  [[nodiscard]] Store& store() { return store_; }

 private:
  Store store_;
  Sealer sealer_;
};

}  // namespace gateway
