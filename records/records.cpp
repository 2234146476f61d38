#include "records/records.h"

#include <tuple>

namespace ravel {

bool operator<(const IPProperty& left, const IPProperty& right) noexcept {
  if (left.startIP != right.startIP) return left.startIP < right.startIP;
  return std::tie(left.endIP, left.place, left.extend, left.oper, left.nettype, left.apn,
                  left.flable) < std::tie(right.endIP, right.place, right.extend, right.oper,
                                          right.nettype, right.apn, right.flable);
}

bool operator<(const CodeInfo& left, const CodeInfo& right) noexcept {
  return std::tie(left.codeType, left.ID, left.content) <
         std::tie(right.codeType, right.ID, right.content);
}

void IPAttribute::writeTo(VekOutputStream<BufferWriter>& out) const {
  out.write(startIP, 0);
  out.write(endIP, 1);
  out.write(static_cast<long>(place), 2);
  out.write(extend, 3);
  out.write(oper, 4);
  out.write(nettype, 5);
  out.write(apn, 6);
  out.write(flable, 7);
}

void IPAttribute::readFrom(VekInputStream<BufferReader>& in) {
  in.read(startIP, 0, true);
  in.read(endIP, 1, true);
  in.read(place, 2, true);
  in.read(extend, 3, true);
  in.read(oper, 4, true);
  in.read(nettype, 5, true);
  in.read(apn, 6, true);
  in.read(flable, 7, true);
}

void CodeInfo::writeTo(VekOutputStream<BufferWriter>& out) const {
  out.write(codeType, 0);
  out.write(static_cast<long>(ID), 1);
  out.write(content, 2);
}

void CodeInfo::readFrom(VekInputStream<BufferReader>& in) {
  in.read(codeType, 0, true);
  in.read(ID, 1, true);
  in.read(content, 2, true);
}

}  // namespace ravel
