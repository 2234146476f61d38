#include "transport/in_process_communicator.h"

#include <exception>
#include <utility>

#include "platform/exception.h"

namespace tolvar {
namespace {

const std::string kMainSuffix = ".TolvarObj@tcp";
const std::string kFirstSuffix = ".FTolvarObj@tcp";

[[noreturn]] void failName(const std::string& name, const std::string& message) {
  throw qel::ZU_Exception("object name \"" + name + "\": " + message);
}

}  // namespace

/// The hook that all proxies of one communicator share.
class InProcessCommunicator::Hook {
 public:
  void set(CallHook hook) {
    auto next = std::make_shared<const CallHook>(std::move(hook));
    const std::lock_guard lock(_mutex);
    _hook.swap(next);
  }

  void operator()(const std::string& operation, const std::string& object) const {
    const auto hook = get();
    if (hook != nullptr && *hook) (*hook)(operation, object);
  }

 private:
  std::shared_ptr<const CallHook> get() const {
    const std::lock_guard lock(_mutex);
    return _hook;
  }

  mutable std::mutex _mutex;
  std::shared_ptr<const CallHook> _hook;  ///< guarded by _mutex
};

namespace {

using Services = InProcessCommunicator::Services;

/// What both kinds of proxies are made of: the object they stand for, and how a call runs.
template <class HookT>
struct Target {
  std::string object;
  Services services;
  std::shared_ptr<HookT> hook;

  Target choose(std::int64_t key) const {
    return {object, {services[static_cast<std::uint64_t>(key) % services.size()]}, hook};
  }

  template <class CallT>
  int run(const char* operation, CallT&& call) const {
    try {
      (*hook)(operation, object);
      call(*services.front());
      return 0;
    } catch (const std::exception& fault) {
      throw qel::ZU_Exception(std::string(operation) + " on " + object +
                              " failed: " + fault.what());
    } catch (...) {
      throw qel::ZU_Exception(std::string(operation) + " on " + object + " failed: unknown cause");
    }
  }
};

template <class HookT>
class MainProxy final : public ravel::TolvarProxy {
 public:
  explicit MainProxy(Target<HookT> target) : _target(std::move(target)) {}

  ravel::TolvarPrx selectServer(std::int64_t key) override {
    return std::make_shared<MainProxy>(_target.choose(key));
  }

  int getConf(ravel::ClientConf& conf, const ravel::CallContext&, ravel::CallContext*) override {
    return _target.run("getConf", [&](auto& service) { conf = service.getConf(); });
  }

  int checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info, const ravel::CallContext&,
                     ravel::CallContext*) override {
    return _target.run("checkChangeAdv",
                       [&](auto& service) { info = service.checkChangeAdv(req); });
  }

  int totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                          ravel::downloadInfo& page, const ravel::CallContext&,
                          ravel::CallContext*) override {
    return _target.run("totalDownloadIPInfo",
                       [&](auto& service) { page = service.totalDownloadIPInfo(high, low, size); });
  }

  int totalDownloadCode(std::vector<ravel::CodeInfo>& codes, const ravel::CallContext&,
                        ravel::CallContext*) override {
    return _target.run("totalDownloadCode",
                       [&](auto& service) { codes = service.totalDownloadCode(); });
  }

  int reportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                   const ravel::CallContext&, ravel::CallContext*) override {
    return _target.run("reportCounts",
                       [&](auto& service) { service.reportCounts(counts, dropped); });
  }

  int reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                  const ravel::CallContext&, ravel::CallContext*) override {
    return _target.run("reportLines", [&](auto& service) { service.reportLines(lines, dropped); });
  }

 private:
  const Target<HookT> _target;
};

template <class HookT>
class FirstProxy final : public ravel::FTolvarProxy {
 public:
  explicit FirstProxy(Target<HookT> target) : _target(std::move(target)) {}

  ravel::FTolvarPrx selectServer(std::int64_t key) override {
    return std::make_shared<FirstProxy>(_target.choose(key));
  }

  int FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                               ravel::downloadInfo& page, const ravel::CallContext&,
                               ravel::CallContext*) override {
    return _target.run("FirstTotalDownloadIPInfo", [&](auto& service) {
      page = service.FirstTotalDownloadIPInfo(high, low, size);
    });
  }

 private:
  const Target<HookT> _target;
};

}  // namespace

InProcessCommunicator::InProcessCommunicator() : _hook(std::make_shared<Hook>()) {}

InProcessCommunicator::InProcessCommunicator(std::shared_ptr<service::LookupService> service)
    : InProcessCommunicator() {
  if (service == nullptr) throw qel::ZU_Exception("in-process communicator: no service given");
  _anyName.push_back(std::move(service));
}

InProcessCommunicator::~InProcessCommunicator() = default;

void InProcessCommunicator::bind(const std::string& name, Services services) {
  if (!name.ends_with(kMainSuffix) && !name.ends_with(kFirstSuffix))
    failName(name, "expected a name that ends in " + kMainSuffix + " or " + kFirstSuffix);
  if (services.empty()) failName(name, "no service to bind it to");
  for (const auto& service : services) {
    if (service == nullptr) failName(name, "a service to bind it to is null");
  }
  const std::lock_guard lock(_mutex);
  _bound[name] = std::move(services);
}

void InProcessCommunicator::setCallHook(CallHook hook) { _hook->set(std::move(hook)); }

InProcessCommunicator::Services InProcessCommunicator::resolve(const std::string& name,
                                                               const std::string& suffix) const {
  if (!name.ends_with(suffix)) failName(name, "expected a name that ends in " + suffix);
  const std::lock_guard lock(_mutex);
  const auto bound = _bound.find(name);
  if (bound != _bound.end()) return bound->second;
  if (_anyName.empty()) failName(name, "no service is bound to it");
  return _anyName;
}

void InProcessCommunicator::stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) {
  proxy = std::make_shared<MainProxy<Hook>>(Target<Hook>{name, resolve(name, kMainSuffix), _hook});
}

void InProcessCommunicator::stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) {
  proxy =
      std::make_shared<FirstProxy<Hook>>(Target<Hook>{name, resolve(name, kFirstSuffix), _hook});
}

}  // namespace tolvar
