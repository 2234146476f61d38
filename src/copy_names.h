#pragma once

#include <cstdint>

#include "include/lookup_types.h"

namespace tolvar {

/// Makes the nine names of `*msg` copies of those of `tuple`, a number below names.tupleCount(). A
/// message that is used again keeps its memory. Throws std::bad_alloc.
void copyNames(const TupleNames& names, std::uint32_t tuple, IPHumanMessage* msg);

}  // namespace tolvar
