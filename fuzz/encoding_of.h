#pragma once

#include <string>

#include "records/records.h"

namespace tolvar_fuzz {

/// The encoding of a record; a code entry's may be longer than a node.
template <class Record>
std::string encodingOf(const Record& record) {
  ravel::VekOutputStream<ravel::BufferWriter> out;
  record.writeTo(out);
  return std::string(out.getBuffer(), out.getLength());
}

}  // namespace tolvar_fuzz
