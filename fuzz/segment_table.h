#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

/// System V segments that lie in blocks of the heap, each of exactly its size, so that the address
/// sanitizer sees every byte touched beyond one, and nothing is left behind on the host.
namespace tolvar_fuzz {

/// Replaces the calls for shared memory and semaphores of the process. Call once, first.
void installSegmentTable();

/// Removes all segments. Segments larger than `largest` bytes cannot be made from now on.
void resetSegments(std::size_t largest);

/// Makes a segment with this content.
void plantSegment(key_t key, const std::string& content);

/// Content of the segment behind `key`; empty when there is none.
std::string segmentContent(key_t key);

}  // namespace tolvar_fuzz
