#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "records/records.h"

namespace ravel {

/// Request context and response context of a call.
using CallContext = std::map<std::string, std::string>;

class TolvarProxy;
class FTolvarProxy;

/// Reference-counted handles of the proxies.
using TolvarPrx = std::shared_ptr<TolvarProxy>;
using FTolvarPrx = std::shared_ptr<FTolvarProxy>;

/// The lookup service's main object.
///
/// Every operation is a synchronous call that blocks until the answer has arrived and then fills
/// its out-parameter. Every failure (transport, time-out, an error of the service) arrives as a
/// qel::ZU_Exception; the out-parameter must then not be used. The returned number is not an error
/// code. Operations may be called from several threads at once.
class TolvarProxy {
 public:
  virtual ~TolvarProxy() = default;

  /// The proxy of one server of the service, chosen by `key`; the same key chooses the same server
  /// as long as the set of servers stays the same.
  virtual TolvarPrx selectServer(std::int64_t key) = 0;

  /// Makes the calls under way through this proxy, and through those that it selected or that
  /// selected it, fail with a ZU_Exception within 200 ms; later calls are not touched. A transport
  /// whose calls never wait has nothing to do.
  virtual void cancelCalls() {}

  virtual int getConf(ClientConf& conf, const CallContext& context = {},
                      CallContext* response = nullptr) = 0;

  virtual int checkChangeAdv(const CheckReq& req, CheckInfo& info, const CallContext& context = {},
                             CallContext* response = nullptr) = 0;

  /// The page of at most `size` ranges that begins behind the cursor high * 2^32 + low.
  virtual int totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                                  downloadInfo& page, const CallContext& context = {},
                                  CallContext* response = nullptr) = 0;

  /// Every entry of all eight code tables.
  virtual int totalDownloadCode(std::vector<CodeInfo>& codes, const CallContext& context = {},
                                CallContext* response = nullptr) = 0;

  /// Delivers hit counts of names; `dropped` is how many hits could not be counted since the last
  /// delivery because the reporter's memory is bounded.
  virtual int reportCounts(const std::vector<ReportCount>& counts, std::uint64_t dropped,
                           const CallContext& context = {}, CallContext* response = nullptr) = 0;

  /// Delivers sampled lines; `dropped` is how many lines were lost since the last delivery.
  virtual int reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                          const CallContext& context = {}, CallContext* response = nullptr) = 0;
};

/// The lookup service's object for the first full download, which may live on other servers.
/// Calls behave as those of TolvarProxy.
class FTolvarProxy {
 public:
  virtual ~FTolvarProxy() = default;

  virtual FTolvarPrx selectServer(std::int64_t key) = 0;

  /// As TolvarProxy::cancelCalls.
  virtual void cancelCalls() {}

  virtual int FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                                       downloadInfo& page, const CallContext& context = {},
                                       CallContext* response = nullptr) = 0;
};

}  // namespace ravel
