#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/exception.h"
#include "remote/communicator.h"

namespace tolvar_test {

/// A scripted service: every operation is a function that the test sets, every call is recorded in
/// order as text ("checkChangeAdv md5=0 api=20120704 conf=1", "FirstTotalDownloadIPInfo 0 0
/// 50000"). Operations without a function answer with the record's defaults. May be called from any
/// thread.
struct FakeService {
  std::function<void(ravel::ClientConf&)> getConf;
  std::function<void(const ravel::CheckReq&, ravel::CheckInfo&)> checkChange;
  std::function<void(std::uint32_t, std::uint32_t, std::uint32_t, ravel::downloadInfo&)> download;
  std::function<void(std::uint32_t, std::uint32_t, std::uint32_t, ravel::downloadInfo&)>
      firstDownload;
  std::function<void(std::vector<ravel::CodeInfo>&)> codes;
  std::function<void(const std::vector<ravel::ReportCount>&, std::uint64_t)> reportCounts;
  std::function<void(const std::vector<std::string>&, std::uint64_t)> reportLines;

  /// What cancelCalls of the main object's proxy does; not recorded.
  std::function<void()> cancel;

  /// selectServer answers no proxy.
  std::atomic<bool> noServers{false};

  void record(const std::string& call);
  std::vector<std::string> calls() const;
  void forgetCalls();

 private:
  mutable std::mutex _mutex;
  std::vector<std::string> _calls;
};

/// Proxies of a FakeService; any object name will do. `selectServer` answers a proxy of its own and
/// records "selectServer KEY" or "selectServer(F) KEY".
class FakeCommunicator : public qel::Communicator {
 public:
  explicit FakeCommunicator(std::shared_ptr<FakeService> service) : _service(std::move(service)) {}

  void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) override;
  void stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) override;

 private:
  std::shared_ptr<FakeService> _service;
};

ravel::TolvarPrx fakeProxy(std::shared_ptr<FakeService> service);
ravel::FTolvarPrx fakeFastProxy(std::shared_ptr<FakeService> service);

}  // namespace tolvar_test
