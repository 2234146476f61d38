#include "tests/support/fake_service.h"

namespace tolvar_test {
namespace {

std::string pageCall(const char* name, std::uint32_t high, std::uint32_t low, std::uint32_t size) {
  return std::string(name) + " " + std::to_string(high) + " " + std::to_string(low) + " " +
         std::to_string(size);
}

class FakeProxy : public ravel::TolvarProxy {
 public:
  explicit FakeProxy(std::shared_ptr<FakeService> service) : _service(std::move(service)) {}

  ravel::TolvarPrx selectServer(std::int64_t key) override {
    _service->record("selectServer " + std::to_string(key));
    if (_service->noServers) return nullptr;
    return std::make_shared<FakeProxy>(_service);
  }
  void cancelCalls() override {
    if (_service->cancel) _service->cancel();
  }
  int getConf(ravel::ClientConf& conf, const ravel::CallContext& context,
              ravel::CallContext* response) override {
    _service->record("getConf" + contextNote(context, response));
    if (_service->getConf) _service->getConf(conf);
    return 0;
  }
  int checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info,
                     const ravel::CallContext& context, ravel::CallContext* response) override {
    _service->record("checkChangeAdv md5=" + req.contentMd5 +
                     " api=" + std::to_string(req.apiVersion) +
                     " conf=" + std::to_string(req.confVersion) + contextNote(context, response));
    if (_service->checkChange) _service->checkChange(req, info);
    return 0;
  }
  int totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                          ravel::downloadInfo& page, const ravel::CallContext& context,
                          ravel::CallContext* response) override {
    _service->record(pageCall("totalDownloadIPInfo", high, low, size) +
                     contextNote(context, response));
    if (_service->download) _service->download(high, low, size, page);
    return 0;
  }
  int totalDownloadCode(std::vector<ravel::CodeInfo>& codes, const ravel::CallContext& context,
                        ravel::CallContext* response) override {
    _service->record("totalDownloadCode" + contextNote(context, response));
    if (_service->codes) _service->codes(codes);
    return 0;
  }
  int reportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                   const ravel::CallContext&, ravel::CallContext*) override {
    if (_service->reportCounts) _service->reportCounts(counts, dropped);
    return 0;
  }
  int reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                  const ravel::CallContext&, ravel::CallContext*) override {
    if (_service->reportLines) _service->reportLines(lines, dropped);
    return 0;
  }

 private:
  /// Nothing for the empty context and the absent response that every call carries.
  static std::string contextNote(const ravel::CallContext& context, ravel::CallContext* response) {
    return context.empty() && response == nullptr ? "" : " (with context)";
  }
  std::shared_ptr<FakeService> _service;
};

class FakeFastProxy : public ravel::FTolvarProxy {
 public:
  explicit FakeFastProxy(std::shared_ptr<FakeService> service) : _service(std::move(service)) {}

  ravel::FTolvarPrx selectServer(std::int64_t key) override {
    _service->record("selectServer(F) " + std::to_string(key));
    if (_service->noServers) return nullptr;
    return std::make_shared<FakeFastProxy>(_service);
  }
  int FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                               ravel::downloadInfo& page, const ravel::CallContext&,
                               ravel::CallContext*) override {
    _service->record(pageCall("FirstTotalDownloadIPInfo", high, low, size));
    if (_service->firstDownload) _service->firstDownload(high, low, size, page);
    return 0;
  }

 private:
  std::shared_ptr<FakeService> _service;
};

}  // namespace

void FakeService::record(const std::string& call) {
  std::lock_guard<std::mutex> hold(_mutex);
  _calls.push_back(call);
}

std::vector<std::string> FakeService::calls() const {
  std::lock_guard<std::mutex> hold(_mutex);
  return _calls;
}

void FakeService::forgetCalls() {
  std::lock_guard<std::mutex> hold(_mutex);
  _calls.clear();
}

void FakeCommunicator::stringToProxy(const std::string&, ravel::TolvarPrx& proxy) {
  proxy = fakeProxy(_service);
}

void FakeCommunicator::stringToProxy(const std::string&, ravel::FTolvarPrx& proxy) {
  proxy = fakeFastProxy(_service);
}

ravel::TolvarPrx fakeProxy(std::shared_ptr<FakeService> service) {
  return std::make_shared<FakeProxy>(std::move(service));
}

ravel::FTolvarPrx fakeFastProxy(std::shared_ptr<FakeService> service) {
  return std::make_shared<FakeFastProxy>(std::move(service));
}

}  // namespace tolvar_test
