#include "transport/grpc/record_codec.h"

#include <limits>

#include "tolvar.pb.h"

namespace tolvar::wire {
namespace {

void checkAtMost(const char* what, std::size_t value, std::size_t limit) {
  if (value > limit)
    throw WireError(std::string(what) + ": " + std::to_string(value) + ", at most " +
                    std::to_string(limit) + " is allowed");
}

std::int8_t narrow(const char* field, std::int32_t value) {
  if (value < std::numeric_limits<std::int8_t>::min() ||
      value > std::numeric_limits<std::int8_t>::max())
    throw WireError(std::string(field) + " " + std::to_string(value) + " is not in -128 to 127");
  return static_cast<std::int8_t>(value);
}

void checkReportType(std::int32_t type) {
  if (type < ravel::ECountry || type > ravel::EOperator)
    throw WireError("report type " + std::to_string(type) + " is not in 0 to 3");
}

template <class Names>
void checkCitys(const Names& names) {
  checkAtMost("number of cities", static_cast<std::size_t>(names.size()), kMaxConfCitys);
  for (const std::string& name : names)
    checkAtMost("bytes of a city's name", name.size(), kMaxNameBytes);
}

template <class Lines>
void checkLines(const Lines& lines) {
  checkAtMost("number of lines", static_cast<std::size_t>(lines.size()), kMaxReportLines);
  for (const std::string& line : lines)
    checkAtMost("bytes of a line", line.size(), kMaxReportLineBytes);
}

}  // namespace

void encodeConf(const ravel::ClientConf& conf, v1::ClientConf& message) {
  checkCitys(conf.simpleLogCitys);
  message.Clear();
  message.set_statis_open(conf.statisOpen);
  for (const std::string& city : conf.simpleLogCitys) message.add_simple_log_citys(city);
  message.set_simpling_rate(conf.simplingRate);
  message.set_log_buffer_limit(conf.logBufferLimit);
  message.set_log_unknown_ip(conf.logUnknownIp);
  message.set_conf_version(conf.confVersion);
}

void decodeConf(const v1::ClientConf& message, ravel::ClientConf& conf) {
  checkCitys(message.simple_log_citys());
  conf.statisOpen = message.statis_open();
  conf.simpleLogCitys.assign(message.simple_log_citys().begin(), message.simple_log_citys().end());
  conf.simplingRate = message.simpling_rate();
  conf.logBufferLimit = message.log_buffer_limit();
  conf.logUnknownIp = message.log_unknown_ip();
  conf.confVersion = message.conf_version();
}

void encodeCheckReq(const ravel::CheckReq& req, v1::CheckRequest& message) {
  checkAtMost("bytes of a digest", req.contentMd5.size(), kMaxDigestBytes);
  message.Clear();
  message.set_content_md5(req.contentMd5);
  message.set_api_version(req.apiVersion);
  message.set_conf_version(req.confVersion);
}

void decodeCheckReq(const v1::CheckRequest& message, ravel::CheckReq& req) {
  checkAtMost("bytes of a digest", message.content_md5().size(), kMaxDigestBytes);
  req.contentMd5 = message.content_md5();
  req.apiVersion = message.api_version();
  req.confVersion = message.conf_version();
}

void encodeCheckInfo(const ravel::CheckInfo& info, v1::CheckAnswer& message) {
  message.Clear();
  message.set_is_net_flow(info.isNetFlow);
  message.set_is_reset(info.isReset);
  message.set_update_conf(info.updateConf);
}

void decodeCheckInfo(const v1::CheckAnswer& message, ravel::CheckInfo& info) {
  info.isNetFlow = narrow("is_net_flow", message.is_net_flow());
  info.isReset = narrow("is_reset", message.is_reset());
  info.updateConf = message.update_conf();
}

void encodeReportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                        v1::ReportCountsRequest& message) {
  checkAtMost("number of counts", counts.size(), kMaxReportCounts);
  message.Clear();
  message.set_dropped(dropped);
  for (const ravel::ReportCount& count : counts) {
    checkReportType(count.info.type);
    checkAtMost("bytes of a reported name", count.info.name.size(), kMaxNameBytes);
    v1::ReportCount& entry = *message.add_counts();
    entry.set_type(static_cast<v1::ReportType>(count.info.type));
    entry.set_name(count.info.name);
    entry.set_count(count.count);
  }
}

std::vector<ravel::ReportCount> decodeReportCounts(const v1::ReportCountsRequest& message) {
  checkAtMost("number of counts", static_cast<std::size_t>(message.counts_size()),
              kMaxReportCounts);
  std::vector<ravel::ReportCount> counts;
  counts.reserve(static_cast<std::size_t>(message.counts_size()));
  for (const v1::ReportCount& entry : message.counts()) {
    checkReportType(entry.type());
    checkAtMost("bytes of a reported name", entry.name().size(), kMaxNameBytes);
    ravel::ReportCount& count = counts.emplace_back();
    count.info.type = static_cast<ravel::ReportType>(entry.type());
    count.info.name = entry.name();
    count.count = entry.count();
  }
  return counts;
}

void encodeReportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                       v1::ReportLinesRequest& message) {
  checkLines(lines);
  message.Clear();
  message.set_dropped(dropped);
  for (const std::string& line : lines) message.add_lines(line);
}

std::vector<std::string> decodeReportLines(const v1::ReportLinesRequest& message) {
  checkLines(message.lines());
  return {message.lines().begin(), message.lines().end()};
}

}  // namespace tolvar::wire
