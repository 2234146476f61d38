#include "transport/grpc/page_bytes.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace tolvar::wire {

PageBytes::PageBytes(std::size_t size)
    : _size(size), _bytes(std::make_unique_for_overwrite<std::uint8_t[]>(size + kReadAhead)) {
  std::memset(_bytes.get() + size, 0, kReadAhead);
}

PageBytes::PageBytes(std::span<const std::uint8_t> bytes) : PageBytes(bytes.size()) {
  std::copy(bytes.begin(), bytes.end(), _bytes.get());
}

PageBytes::PageBytes(const grpc::ByteBuffer& received) : PageBytes(received.Length()) {
  if (_size == 0) return;
  std::vector<grpc::Slice> pieces;
  // Fails only for a buffer without content.
  if (!received.Dump(&pieces).ok()) return;
  std::uint8_t* to = _bytes.get();
  for (const grpc::Slice& piece : pieces) to = std::copy(piece.begin(), piece.end(), to);
}

}  // namespace tolvar::wire
