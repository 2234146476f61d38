#pragma once

namespace qel {

/// Asks the kernel to let this process use processBarrier(). True when it may; false where the
/// kernel has no membarrier(2) or a filter forbids it. May be called again, from any thread; a
/// forked child calls it anew.
bool registerProcessBarrier() noexcept;

/// Makes every thread of the process pass a full memory barrier before it returns. False when the
/// kernel refused: then nothing is known about the other threads. Takes some microseconds.
bool processBarrier() noexcept;

}  // namespace qel
