#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "remote/communicator.h"
#include "service/lookup_service.h"

namespace tolvar {

/// Connects clients to lookup services in the same process: calls run on the caller's thread,
/// nothing is encoded or copied beyond the answer.
///
/// Names end in ".TolvarObj@tcp" (main object) or ".FTolvarObj@tcp" (first download). Every failure
/// of a call arrives as a qel::ZU_Exception that names the operation, the object and the cause.
/// All operations may be called from any thread. Proxies keep the services alive by themselves.
class InProcessCommunicator : public qel::Communicator {
 public:
  using Services = std::vector<std::shared_ptr<service::LookupService>>;

  /// Runs before every call with the operation's and the object's name, on the caller's thread.
  /// What it throws fails the call as if the service had thrown it. Must be safe from any thread.
  using CallHook = std::function<void(const std::string& operation, const std::string& object)>;

  /// Resolves only the names that `bind` gives.
  InProcessCommunicator();

  /// Resolves every well-formed name to `service`.
  explicit InProcessCommunicator(std::shared_ptr<service::LookupService> service);

  ~InProcessCommunicator() override;

  /// Resolves the object `name` to `services`, among which `selectServer` picks key modulo their
  /// number, and calls without a choice the first. Proxies made earlier keep what they had. Throws
  /// ZU_Exception when the name has neither suffix, or there is no service, or one is null.
  void bind(const std::string& name, Services services);

  /// Sets the hook of all proxies, those made earlier included; an empty one removes it.
  void setCallHook(CallHook hook);

  void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) override;
  void stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) override;

 private:
  class Hook;

  Services resolve(const std::string& name, const std::string& suffix) const;

  const std::shared_ptr<Hook> _hook;
  mutable std::mutex _mutex;
  // Guarded by _mutex.
  Services _anyName;
  std::map<std::string, Services> _bound;
};

}  // namespace tolvar
