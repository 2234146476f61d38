#pragma once

#include <unistd.h>

#include <utility>

namespace tolvar {

/// A file descriptor that is closed with the object unless somebody takes it. Negative: none.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : _number(number) {}
  ~Descriptor() {
    if (_number >= 0) ::close(_number);
  }
  Descriptor(Descriptor&& other) noexcept : _number(other.release()) {}
  Descriptor& operator=(Descriptor&&) = delete;

  int number() const noexcept { return _number; }

  /// The caller closes it.
  int release() noexcept { return std::exchange(_number, -1); }

 private:
  int _number;
};

}  // namespace tolvar
