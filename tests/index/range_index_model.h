#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "src/index/range_index.h"

namespace tolvar_test {

/// The first range in order that contains the address; nullptr when none does. What the index
/// means.
inline const ravel::IPProperty* scan(std::span<const ravel::IPProperty> table, std::uint32_t ip) {
  for (const ravel::IPProperty& range : table) {
    if (range.startIP <= ip && ip <= range.endIP) return &range;
  }
  return nullptr;
}

/// What a lookup reports for a range (all zeros for none).
inline ravel::IPInfo expectedInfo(const ravel::IPProperty* range) {
  ravel::IPInfo info;
  if (range == nullptr) return info;
  info.district = range->place;
  info.city = static_cast<std::uint32_t>(range->place / 1000);
  info.province = static_cast<std::uint32_t>(range->place / 1000 / 1000);
  info.country = static_cast<std::uint32_t>(range->place / 1000 / 1000 / 1000);
  info.extend = range->extend;
  info.oper = range->oper;
  info.nettype = range->nettype;
  info.apn = static_cast<std::uint8_t>(range->apn);
  info.flable = static_cast<std::uint8_t>(range->flable);
  return info;
}

inline bool same(const ravel::IPInfo& a, const ravel::IPInfo& b) {
  return a.country == b.country && a.province == b.province && a.city == b.city &&
         a.district == b.district && a.extend == b.extend && a.oper == b.oper &&
         a.nettype == b.nettype && a.apn == b.apn && a.flable == b.flable;
}

/// Asks for one address in each single form.
inline bool answersSingly(const tolvar::RangeIndex& index, std::uint32_t ip,
                          const ravel::IPProperty* expected) {
  const ravel::IPInfo wanted = expectedInfo(expected);
  const ravel::IPInfo* const found = index.find(ip);
  if ((found != nullptr) != (expected != nullptr)) return false;
  if (found != nullptr && !same(*found, wanted)) return false;

  ravel::IPInfo untouched;
  untouched.district = -77;
  untouched.flable = 78;
  ravel::IPInfo copied = untouched;
  if (index.lookup(ip, &copied) != (expected != nullptr)) return false;
  if (!same(copied, expected != nullptr ? wanted : untouched)) return false;

  const std::uint32_t tuple = index.findTuple(ip);
  return tuple < index.tupleCount() && (tuple != 0) == (expected != nullptr) &&
         same(index.info(tuple), wanted);
}

/// Addresses with the ranges that should answer them; checks all forms of lookup.
class Expectations {
 public:
  void add(std::uint32_t ip, const ravel::IPProperty* expected) {
    _ips.push_back(ip);
    _expected.push_back(expected);
  }

  void check(const tolvar::RangeIndex& index) const {
    for (std::size_t i = 0; i < _ips.size(); ++i) {
      ASSERT_TRUE(answersSingly(index, _ips[i], _expected[i])) << "address " << _ips[i];
    }
    ravel::IPInfo dirty;
    dirty.oper = 99;
    std::vector<ravel::IPInfo> infos(_ips.size(), dirty);
    std::vector<std::uint8_t> found(_ips.size(), 7);
    index.findBatch(_ips, infos.data(), found.data());
    for (std::size_t i = 0; i < _ips.size(); ++i) {
      ASSERT_EQ(found[i], _expected[i] != nullptr ? 1 : 0) << "address " << _ips[i];
      ASSERT_TRUE(same(infos[i], expectedInfo(_expected[i]))) << "address " << _ips[i];
    }
  }

 private:
  std::vector<std::uint32_t> _ips;
  std::vector<const ravel::IPProperty*> _expected;
};

}  // namespace tolvar_test
