#pragma once

#include <array>

#include "transport/grpc/field_counts.h"
#include "transport/grpc/wire_limits.h"

namespace tolvar::v1 {
class ClientConf;
class Codes;
class Page;
class ReportCountsRequest;
class ReportLinesRequest;
}  // namespace tolvar::v1

/// The bounds of wire_limits.h for the fields of each message of the contract.
namespace tolvar::wire {

inline constexpr std::array kConfFields{FieldLimit{2, "simple_log_citys", kMaxConfCitys}};

inline constexpr std::array kCodeRunFields{
    FieldLimit{2, "id_delta", kMaxCodeEntries, FieldLimit::Content::Numbers},
    FieldLimit{3, "content", kMaxCodeEntries}};
inline constexpr std::array kCodesFields{
    FieldLimit{2, "run", kMaxCodeRuns, FieldLimit::Content::Message, kCodeRunFields}};

inline constexpr std::array kReportCountsFields{
    FieldLimit{1, "counts", kMaxReportCounts, FieldLimit::Content::Message}};
inline constexpr std::array kReportLinesFields{FieldLimit{1, "lines", kMaxReportLines}};

inline constexpr FieldLimit pageColumn(std::uint32_t number, const char* name) {
  return {number, name, kMaxPageRecords, FieldLimit::Content::Numbers};
}
inline constexpr std::array kPageFields{pageColumn(5, "times_tamp_delta"),
                                        pageColumn(6, "sequence_delta"),
                                        pageColumn(7, "start_ip_delta"),
                                        pageColumn(8, "end_ip_offset"),
                                        pageColumn(9, "place"),
                                        pageColumn(10, "extend"),
                                        pageColumn(11, "oper"),
                                        pageColumn(12, "nettype"),
                                        pageColumn(13, "apn"),
                                        pageColumn(14, "flable")};

/// What `Message` may hold; a message without repeated fields, unless said otherwise below.
template <class Message>
inline constexpr MessageLimits kLimitsOf{{}, kMaxOtherFields};
template <>
inline constexpr MessageLimits kLimitsOf<v1::ClientConf>{kConfFields, kMaxOtherFields};
template <>
inline constexpr MessageLimits kLimitsOf<v1::Page>{kPageFields, kMaxOtherFields};
template <>
inline constexpr MessageLimits kLimitsOf<v1::ReportLinesRequest>{kReportLinesFields,
                                                                 kMaxOtherFields};
template <>
inline constexpr MessageLimits kLimitsOf<v1::Codes>{
    kCodesFields, kMaxOtherFields + kMaxFieldsOfElement* kMaxCodeRuns};
template <>
inline constexpr MessageLimits kLimitsOf<v1::ReportCountsRequest>{
    kReportCountsFields, kMaxOtherFields + kMaxFieldsOfElement* kMaxReportCounts};

}  // namespace tolvar::wire
