#pragma once

#include <cstddef>

#include "platform/shm.h"

namespace tolvar {

/// Copies `size` bytes into a shared segment, large ones on two threads. The blocks do not overlap.
void copyToSegment(void* to, const void* from, std::size_t size);

/// The same for a segment of zeros. What is zero anyway is not written: the system need not provide
/// memory for the room that a fresh image leaves, which is most of it.
void copyToNewSegment(void* to, const void* from, std::size_t size);

/// Copies bytes `begin` to `end` of `from` to the same place of `to`, which is large enough.
void copyContent(qel::ZU_Shm& to, std::size_t begin, const qel::ZU_Shm& from, std::size_t end);

/// The same for a `to` that was just initialized. One that was made here holds zeros; another
/// process's may hold anything.
void fillContent(qel::ZU_Shm& to, std::size_t begin, const qel::ZU_Shm& from, std::size_t end);

}  // namespace tolvar
