#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace tolvar::wire {

/// A received message in one piece, so that it can be decoded where it lies. Behind it lie
/// `kReadAhead` bytes of 0 that decoders may read, which spares them a test per value.
class PageBytes {
 public:
  static constexpr std::size_t kReadAhead = 64;

  /// Both copy, because a transport delivers a message in many small pieces.
  explicit PageBytes(std::span<const std::uint8_t> bytes);
  /// Throws std::bad_alloc only; a buffer without content is a message of no bytes.
  explicit PageBytes(const grpc::ByteBuffer& received);

  std::span<const std::uint8_t> bytes() const noexcept { return {_bytes.get(), _size}; }

 private:
  explicit PageBytes(std::size_t size);

  std::size_t _size;
  std::unique_ptr<std::uint8_t[]> _bytes;
};

}  // namespace tolvar::wire
