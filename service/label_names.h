#pragma once

#include <array>
#include <string_view>

namespace tolvar::service {

/// Texts of the source labels 1 to 15, as lookups name them.
inline constexpr std::array<std::string_view, 15> kLabelNames{
    "FROM_QK", "FROM_RTL",    "FROM_RTL_HMV", "FROM_PLEX1", "FROM_PLEX2",
    "FROM_JN", "FROM_JN_HVM", "FROM_ORB",     "FROM_YAT",   "FROM_KV",
    "RTL",     "JN",          "TZ",           "KV",         "PLEX"};

}  // namespace tolvar::service
