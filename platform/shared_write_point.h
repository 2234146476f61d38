#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

/// Where the library changes something that other processes share. Every such place passes a point
/// right before the change, so that a test can stop a process between any two of them. In builds
/// without TOLVAR_SHARED_WRITE_POINTS (release builds) nothing of it is left; in the others a point
/// is one relaxed load as long as nobody listens.
namespace qel {

/// Called before a change; `what` is a static text that names it. Any thread that writes.
using SharedWriteListener = void (*)(const char* what);

#ifdef TOLVAR_SHARED_WRITE_POINTS

inline constexpr bool kSharedWritePoints = true;

/// Who is told, null for nobody. Set before threads write, by tests only.
inline std::atomic<SharedWriteListener> sharedWriteListener{nullptr};

inline void sharedWritePoint(const char* what) noexcept {
  if (const auto listener = sharedWriteListener.load(std::memory_order_relaxed)) listener(what);
}

/// Calls `change(offset, bytes)` for the whole of `size` bytes: at once when nobody listens,
/// otherwise for a few pieces with a point before each. `backwards` takes the last piece first.
template <class Change>
void inSharedPieces(const char* what, std::size_t size, bool backwards, Change change) {
  if (sharedWriteListener.load(std::memory_order_relaxed) == nullptr) {
    if (size != 0) change(std::size_t{0}, size);
    return;
  }
  // Multiples of 8 that leave words whole and tear nodes.
  const std::size_t piece = std::max<std::size_t>(size / 4 / 8 * 8, 72);
  const std::size_t pieces = (size + piece - 1) / piece;
  for (std::size_t i = 0; i < pieces; ++i) {
    const std::size_t offset = (backwards ? pieces - 1 - i : i) * piece;
    sharedWritePoint(what);
    change(offset, std::min(piece, size - offset));
  }
}

#else

inline constexpr bool kSharedWritePoints = false;

inline void sharedWritePoint(const char*) noexcept {}

template <class Change>
void inSharedPieces(const char*, std::size_t size, bool, Change change) {
  if (size != 0) change(std::size_t{0}, size);
}

#endif

/// As memcpy into shared memory.
inline void sharedCopy(const char* what, void* to, const void* from, std::size_t size) {
  inSharedPieces(what, size, false, [=](std::size_t offset, std::size_t bytes) {
    std::memcpy(static_cast<char*>(to) + offset, static_cast<const char*>(from) + offset, bytes);
  });
}

/// As memmove within shared memory to a higher address.
inline void sharedMoveUp(const char* what, void* to, const void* from, std::size_t size) {
  inSharedPieces(what, size, true, [=](std::size_t offset, std::size_t bytes) {
    std::memmove(static_cast<char*>(to) + offset, static_cast<const char*>(from) + offset, bytes);
  });
}

/// As memset of shared memory to 0.
inline void sharedZero(const char* what, void* at, std::size_t size) {
  inSharedPieces(what, size, false, [=](std::size_t offset, std::size_t bytes) {
    std::memset(static_cast<char*>(at) + offset, 0, bytes);
  });
}

}  // namespace qel
