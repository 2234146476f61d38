#pragma once

#include <cstdint>

namespace tolvar_test {

/// Makes operator new of this program fail: allocations number `first` to `first + count - 1` from
/// now on, over all threads but those that spare themselves.
void armAllocations(std::int64_t first, std::int64_t count);
void healAllocations();
/// An allocation has failed since `armAllocations`.
bool allocationFailed();

/// Whether the calling thread's own allocations are left out; not so at first.
void spareThisThread(bool spared);

/// Allocations of the process not freed yet, in all.
std::int64_t liveAllocations();

}  // namespace tolvar_test
