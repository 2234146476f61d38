#pragma once

#include <cstddef>

namespace tolvar_test {

/// How often the calling thread has allocated memory with operator new.
std::size_t allocationCount() noexcept;

}  // namespace tolvar_test
