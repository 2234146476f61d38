#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/records.h"
#include "transport/grpc/page_codec.h"

namespace tolvar::v1 {
class ClientConf;
class CheckRequest;
class CheckAnswer;
class ReportCountsRequest;
class ReportLinesRequest;
}  // namespace tolvar::v1

/// The small records of the wire. Pure functions, callable from any thread. Both directions throw
/// WireError for what passes the bounds of wire_limits.h or does not fit its field.
namespace tolvar::wire {

void encodeConf(const ravel::ClientConf& conf, v1::ClientConf& message);
void decodeConf(const v1::ClientConf& message, ravel::ClientConf& conf);

void encodeCheckReq(const ravel::CheckReq& req, v1::CheckRequest& message);
void decodeCheckReq(const v1::CheckRequest& message, ravel::CheckReq& req);

void encodeCheckInfo(const ravel::CheckInfo& info, v1::CheckAnswer& message);
void decodeCheckInfo(const v1::CheckAnswer& message, ravel::CheckInfo& info);

void encodeReportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                        v1::ReportCountsRequest& message);
std::vector<ravel::ReportCount> decodeReportCounts(const v1::ReportCountsRequest& message);

void encodeReportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                       v1::ReportLinesRequest& message);
std::vector<std::string> decodeReportLines(const v1::ReportLinesRequest& message);

}  // namespace tolvar::wire
