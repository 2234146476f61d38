#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include "service/lookup_service.h"
#include "service/store/table_store.h"
#include "tools/tolvard/serve/event_log.h"

namespace tolvar::tools {

/// Keeps a LookupService at what a database file holds: whatever another process commits, or a file
/// that takes its place, is served within a second. A file that is gone or damaged changes nothing:
/// the version last read is served on, and the log says why.
class StoreFollower {
 public:
  /// How often the file is looked at, in milliseconds.
  static constexpr int kLookMillis = 200;

  /// What is done with every version, in the follower's thread.
  struct Steps {
    /// Before it is published; what it throws keeps the version out. May take long, and returns
    /// soon after the token asks for it.
    std::function<void(const std::shared_ptr<const service::TableVersion>&, const std::stop_token&)>
        prepare;
    /// After it was published.
    std::function<void()> published;
  };

  /// All outlive the follower.
  StoreFollower(std::string path, service::LookupService& service, EventLog& log);

  /// As `stop`.
  ~StoreFollower();

  StoreFollower(const StoreFollower&) = delete;
  StoreFollower& operator=(const StoreFollower&) = delete;

  /// Opens the file, makes it when there is none, and publishes what it holds; in the calling
  /// thread. Throws service::StoreError.
  void open();

  /// Follows the file from now on, in a thread of its own. Called once, after open. What the steps
  /// use lives until `stop` has returned.
  void start(Steps steps);

  /// Looks at once, and reads what seemed unchanged or damaged again. From any thread.
  void poke();

  /// Interrupts what is under way: what is not published by now never will be. From any thread.
  void requestStop();

  /// The same, and waits for the end of the thread. From any one thread but its own.
  void stop();

 private:
  /// What tells two states of the file apart without reading it.
  struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    std::int64_t changedAt = 0;     ///< nanoseconds
    std::int64_t logChangedAt = 0;  ///< of the write-ahead log

    bool isSameFile(const FileState& other) const {
      return device == other.device && inode == other.inode;
    }
    bool operator==(const FileState&) const = default;
  };

  bool isStopping() const noexcept { return _stop.stop_requested(); }
  void run();
  void look(bool isForced);
  void refresh(bool isForced);
  void publish(const service::TableStore::LoadedVersion& loaded);
  void refreshConf();
  void reopen();
  void fail(const std::string& message);
  FileState fileState() const;
  std::shared_ptr<service::TableStore> store();
  void setStore(std::shared_ptr<service::TableStore> store);

  const std::string _path;
  service::LookupService& _service;
  EventLog& _log;
  Steps _steps;

  // Used by open, then by the thread only.
  FileState _opened;                   ///< when the store was opened
  FileState _lookedAt;                 ///< when it was read last
  FileState _failedAt;                 ///< when reading it failed last
  std::int64_t _retryAt = 0;           ///< steady milliseconds; when to try again after a failure
  std::int64_t _mark = 0;              ///< the store's change mark that was read
  service::StoredVersion _seen;        ///< the version published last
  service::StoredVersion _unreadable;  ///< the version that could not be read or served
  std::string _failure;                ///< what was logged last; empty while all is well

  std::mutex _mutex;
  std::condition_variable _wake;
  // Guarded by _mutex.
  std::shared_ptr<service::TableStore> _store;
  bool _isPoked = false;

  std::stop_source _stop;
  std::thread _thread;
};

}  // namespace tolvar::tools
