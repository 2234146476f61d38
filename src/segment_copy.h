#pragma once

#include <cstddef>

namespace tolvar {

/// Copies `size` bytes into a shared segment, large ones on two threads. The blocks do not overlap.
void copyToSegment(void* to, const void* from, std::size_t size);

/// The same for a segment of zeros. What is zero anyway is not written: the system need not provide
/// memory for the room that a fresh image leaves, which is most of it.
void copyToNewSegment(void* to, const void* from, std::size_t size);

}  // namespace tolvar
