#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "service/lookup_service.h"
#include "tools/tolvard/serve/event_log.h"

namespace tolvar::tools {

/// Moves what clients report from a LookupService into the database file, in batches. While the
/// file cannot be written, one batch is held back and the service gathers the next within its own
/// bounds.
class UsageWriter {
 public:
  /// Time between two batches, in milliseconds.
  static constexpr int kBatchMillis = 1000;

  /// All outlive the writer.
  UsageWriter(std::string path, service::LookupService& service, EventLog& log);

  /// Writes what is left, waiting for another writer for at most half a second each for what was
  /// held back and for what came since; what cannot be written is lost, and the log says how much.
  ~UsageWriter();

  UsageWriter(const UsageWriter&) = delete;
  UsageWriter& operator=(const UsageWriter&) = delete;

 private:
  void run();
  void flush(int busyMillis);
  void store(int busyMillis);
  void tellLoss();

  const std::string _path;
  service::LookupService& _service;
  EventLog& _log;

  // Used by the thread only.
  service::Usage _pending;
  std::string _failure;  ///< what was logged last; empty while all is well

  std::mutex _mutex;
  std::condition_variable _wake;
  bool _isStopping = false;  ///< guarded by _mutex
  std::thread _thread;
};

}  // namespace tolvar::tools
