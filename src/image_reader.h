#pragma once

#include <array>
#include <memory>
#include <string>

#include "include/lookup_types.h"
#include "include/memVector.h"
#include "records/records.h"
#include "src/image_codec.h"
#include "src/index/code_names.h"
#include "src/index/range_index.h"

namespace tolvar {

/// The content of a data segment, and what a start needs of it.
struct ImageContent {
  ravel::vIPProperty ranges;                ///< sorted
  CodeMap codes[8];                         ///< of the code tables
  std::string digest;                       ///< of the ranges, in the order of the nodes
  std::shared_ptr<const RangeIndex> index;  ///< of `ranges`
  std::shared_ptr<const CodeNames> names;   ///< of `codes`
};

/// Decodes a segment's vectors, of ranges and of the eight code tables, and makes the rest of it:
/// all pieces of work that need not wait for each other at the same time. Throws what decodeCodes
/// and decodeTable throw, std::bad_alloc, and std::length_error when the names take 4 GiB or more.
ImageContent readImage(const IPVector& ranges, const std::array<const CodeVector*, 8>& codes);

}  // namespace tolvar
