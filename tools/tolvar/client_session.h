#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "include/TolvarAPI.h"
#include "platform/clock.h"
#include "service/import_error.h"
#include "tools/tolvar/private_run.h"

namespace tolvar::tools {

/// A running client, wherever its table comes from. Used by one thread, but for lookups.
class ClientSession {
 public:
  virtual ~ClientSession() = default;

  /// Starts the client and waits until it answers; says on standard error when that takes long.
  /// Log files go below `logPath`. Throws qel::ZU_Exception with the reason when it does not come
  /// up.
  void start(const PrivateRun& run, const std::string& logPath);

  /// Makes the client, on `clock`, and starts nothing; `initialize` does. `clock` outlives the
  /// session.
  void prepare(const PrivateRun& run, const std::string& logPath, qel::Clock& clock);

  /// One attempt to start the prepared client; waits until it answers, for at most 30 seconds of
  /// its clock. False when it does not; may then be repeated.
  bool initialize() { return _api->initialize(_options); }

  /// Makes remote calls fail from now on, those under way as well. Any thread.
  virtual void cancelCalls() {}

  /// The client; other threads may ask for its status while `initialize` runs.
  TolvarAPI& api() noexcept { return *_api; }

  /// What was odd about the table.
  virtual std::vector<service::ImportNote> warnings() const { return {}; }

  /// Milliseconds that reading the table from a file took, -1 when none was read.
  virtual std::int64_t importMillis() const { return -1; }

 protected:
  virtual qel::Communicator& communicator() = 0;

  /// Who is to answer, for people; empty when that is in this process.
  virtual std::string serviceName() const { return {}; }

  /// True when the client answers from the table that is meant.
  virtual bool settled(const TolvarStatus& status) const = 0;

  /// Throws qel::ZU_Exception when the settled client answers otherwise all the same.
  virtual void checkAnswers() {}

  /// A derived class ends the client first in its destructor: it uses the communicator.
  void endClient() { _api.reset(); }

 private:
  bool initializeAudibly();
  void awaitSettled();

  TolvarAPIOptions _options;
  std::unique_ptr<TolvarAPI> _api;
};

/// Names of the two objects of a service.
inline constexpr const char* kMainObject = "Tolvar.LookupServer.TolvarObj@tcp";
inline constexpr const char* kFastObject = "Tolvar.LookupServer.FTolvarObj@tcp";

}  // namespace tolvar::tools
