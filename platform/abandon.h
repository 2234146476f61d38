#pragma once

#include <new>

namespace qel {

/// For a forked child: makes `member` anew and leaves what it was to itself. Threads of the parent
/// may have been half-way through changing that when the process was copied, so it is never looked
/// at again, not even to free it. Takes no memory.
template <class Member>
void abandon(Member& member) noexcept {
  new (&member) Member();
}

}  // namespace qel
