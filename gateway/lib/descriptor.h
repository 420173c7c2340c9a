// An open file, socket or the like with one owner, and the writing to it.
#pragma once

#include <unistd.h>

#include <string_view>
#include <utility>

namespace gateway {

// Closed at the end of its life. Without one `get` is -1.
class Descriptor {
 public:
  Descriptor() = default;
  // Takes it over; a negative number is none.
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }

  [[nodiscard]] int get() const { return number_; }
  [[nodiscard]] bool valid() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

// Writes all of it to a blocking descriptor. False, with errno set, when that fails; a part may be written then.
[[nodiscard]] bool write_all(int descriptor, std::string_view text);

}  // namespace gateway
