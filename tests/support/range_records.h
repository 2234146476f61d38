#pragma once

#include <string>
#include <vector>

#include "include/memVector.h"
#include "platform/md5.h"
#include "records/records.h"

namespace tolvar_test {

/// The range without the service's cursor.
inline ravel::IPAttribute attributeOf(const ravel::IPProperty& range) {
  ravel::IPAttribute attribute;
  attribute.startIP = range.startIP;
  attribute.endIP = range.endIP;
  attribute.place = range.place;
  attribute.extend = range.extend;
  attribute.oper = range.oper;
  attribute.nettype = range.nettype;
  attribute.apn = range.apn;
  attribute.flable = range.flable;
  return attribute;
}

/// Appends a range to the nodes of an image, encoded by the records' own stream.
inline void appendNode(const ravel::IPAttribute& range, IPVector* nodes) {
  MemNode_IPAttribute node;
  node.CopyFrom(range);
  nodes->writeData(node);
}

/// Content digest of a table of ravel::IPAttribute or ravel::IPProperty, from the 36-byte images of
/// its ranges written out field by field.
template <class Range>
std::string digestOf(const std::vector<Range>& ranges) {
  std::string images;
  const auto append = [&images](const auto& field) {
    images.append(reinterpret_cast<const char*>(&field), sizeof field);
  };
  for (const Range& range : ranges) {
    append(range.startIP);
    append(range.endIP);
    append(range.extend);
    append(range.oper);
    append(range.nettype);
    append(range.apn);
    append(range.flable);
    append(range.place);
  }
  return qel::ZU_MD5::md5str(images);
}

}  // namespace tolvar_test
