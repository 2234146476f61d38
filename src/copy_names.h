#pragma once

#include "include/lookup_types.h"

namespace tolvar {

/// Makes the nine names of `*msg` copies of those of `names`, which come from a TupleNames. A
/// message that is used again keeps its memory. Throws std::bad_alloc.
void copyNames(const IPNameView& names, IPHumanMessage* msg);

}  // namespace tolvar
