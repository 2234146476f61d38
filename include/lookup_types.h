#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "include/name_view.h"
#include "records/records.h"

/// Compact result of one range search.
struct VALUE {
  std::int64_t place = 0;
  std::uint32_t extend = 0;
  std::uint32_t oper = 0;
  std::uint32_t nettype = 0;
  std::uint8_t apn = 0;     ///< low 8 bits of the range's value
  std::uint8_t flable = 0;  ///< low 8 bits of the range's value
};

/// Image of one range as the content digest takes it: 36 bytes, little-endian, no padding.
#pragma pack(push, 1)
struct GeneralAttribute {
  std::uint32_t startIP;
  std::uint32_t endIP;
  std::uint32_t extend;
  std::uint32_t oper;
  std::uint32_t nettype;
  std::uint32_t apn;
  std::uint32_t flable;
  std::uint64_t place;

  /// Of a ravel::IPAttribute or a ravel::IPProperty.
  template <class Range>
  explicit GeneralAttribute(const Range& range) noexcept
      : startIP(range.startIP),
        endIP(range.endIP),
        extend(range.extend),
        oper(range.oper),
        nettype(range.nettype),
        apn(range.apn),
        flable(range.flable),
        place(static_cast<std::uint64_t>(range.place)) {}
};
#pragma pack(pop)
static_assert(sizeof(GeneralAttribute) == 36);
static_assert(offsetof(GeneralAttribute, extend) == 8);
static_assert(offsetof(GeneralAttribute, flable) == 24);
static_assert(offsetof(GeneralAttribute, place) == 28);

/// Answer of a named lookup; an id without a name gives an empty string.
struct IPHumanMessage {
  std::string m_country;
  std::string m_province;
  std::string m_city;
  std::string m_district;
  std::string m_extend;
  std::string m_oper;
  std::string m_nettype;
  std::string m_apn;
  std::string m_flable;

  /// One line: " country=", the value, " province=", and so on in field order; values unescaped.
  std::string ToString() const;
};

/// Order of a range and an address, for a search by the range's end.
struct IPPropertyComparator {
  bool operator()(const ravel::IPProperty& range, std::uint32_t ip) const noexcept {
    return range.endIP < ip;
  }
  bool operator()(std::uint32_t ip, const ravel::IPProperty& range) const noexcept {
    return ip < range.endIP;
  }
};
