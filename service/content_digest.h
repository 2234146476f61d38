#pragma once

#include <span>
#include <string>

#include "records/records.h"

namespace tolvar::service {

/// MD5 of the ranges in the given order, 32 lower-case hexadecimal digits. Each range counts with
/// 36 bytes, integers little-endian: startIP, endIP, extend, oper, nettype, apn, flable (4 bytes
/// each), place (8 bytes). The cursor takes no part. Clients send the digest of the table they hold
/// in the same form, computed over the ranges in their sorted order. May be called from any thread.
std::string contentDigest(std::span<const ravel::IPProperty> ranges);

}  // namespace tolvar::service
