#pragma once

#include <ctime>

namespace qel {

/// `seconds` since 1970-01-01 UTC in the process's time zone. May be called from any thread, and in
/// a child forked at any moment: the C library converts under a lock that a fork copies as it is,
/// so a fork waits until no thread is in here.
std::tm localTime(std::time_t seconds) noexcept;

}  // namespace qel
