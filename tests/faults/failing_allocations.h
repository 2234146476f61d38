#pragma once

#include <cstdint>

namespace tolvar_test {

/// Operator new of this program, made to fail: allocations number `first` to `first + count - 1`
/// from `arm` on, over all threads but those that spare themselves.
void armAllocations(std::int64_t first, std::int64_t count);
void healAllocations();
/// An allocation has failed since `arm`.
bool allocationFailed();
/// Allocations of threads that were not spared since `arm`.
std::int64_t allocationsSeen();

/// Whether the calling thread's own allocations are left out; not so at first.
void spareThisThread(bool spared);

/// Allocations of the process not freed yet, in all.
std::int64_t liveAllocations();

}  // namespace tolvar_test
