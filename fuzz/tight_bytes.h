#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "records/vek_stream.h"

namespace tolvar_fuzz {

/// A copy of the input that ends where its heap block ends, so that the address sanitizer sees
/// every byte touched beyond it.
class TightBytes {
 public:
  TightBytes(const std::uint8_t* bytes, std::size_t size) : _block(new char[size]), _size(size) {
    if (size != 0) std::memcpy(_block.get(), bytes, size);
  }

  char* data() const { return _block.get(); }
  std::size_t size() const { return _size; }

  qel::VekInputStream<qel::BufferReader> reader() const {
    qel::VekInputStream<qel::BufferReader> in;
    in.setBuffer(_block.get(), _size);
    return in;
  }

 private:
  std::unique_ptr<char[]> _block;
  std::size_t _size;
};

}  // namespace tolvar_fuzz
