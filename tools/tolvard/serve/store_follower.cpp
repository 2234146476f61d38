#include "tools/tolvard/serve/store_follower.h"

#include <sys/stat.h>

#include <chrono>
#include <tuple>
#include <utility>

namespace tolvar::tools {
namespace {

using service::StoredVersion;
using service::TableStore;
using service::TableVersion;

/// How long a failed file is left alone unless it changes.
constexpr std::int64_t kRetryMillis = 10000;

std::int64_t steadyMillis() { return qel::systemClock().steadyMillis(); }

bool isSame(const StoredVersion& a, const StoredVersion& b) {
  return std::tie(a.number, a.timesTamp, a.digest, a.codesDigest) ==
         std::tie(b.number, b.timesTamp, b.digest, b.codesDigest);
}

bool isSame(const ravel::ClientConf& a, const ravel::ClientConf& b) {
  return std::tie(a.statisOpen, a.simpleLogCitys, a.simplingRate, a.logBufferLimit, a.logUnknownIp,
                  a.confVersion) == std::tie(b.statisOpen, b.simpleLogCitys, b.simplingRate,
                                             b.logBufferLimit, b.logUnknownIp, b.confVersion);
}

std::int64_t nanos(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

}  // namespace

StoreFollower::StoreFollower(std::string path, service::LookupService& service, EventLog& log)
    : _path(std::move(path)), _service(service), _log(log) {}

StoreFollower::~StoreFollower() { stop(); }

void StoreFollower::open() {
  setStore(std::make_shared<TableStore>(_path, TableStore::Mode::Create));
  _opened = fileState();
  _mark = store()->changeMark();
  refresh(true);
}

void StoreFollower::start(Steps steps) {
  _steps = std::move(steps);
  _thread = std::thread([this] { run(); });
}

void StoreFollower::poke() {
  {
    const std::lock_guard lock(_mutex);
    _isPoked = true;
  }
  _wake.notify_one();
}

void StoreFollower::requestStop() {
  _stop.request_stop();
  if (const auto current = store()) current->interrupt();
  const std::lock_guard lock(_mutex);
  _wake.notify_one();
}

void StoreFollower::stop() {
  requestStop();
  if (_thread.joinable()) _thread.join();
}

void StoreFollower::run() {
  std::unique_lock lock(_mutex);
  while (!isStopping()) {
    _wake.wait_for(lock, std::chrono::milliseconds(kLookMillis),
                   [this] { return isStopping() || _isPoked; });
    const bool isForced = std::exchange(_isPoked, false);
    lock.unlock();
    try {
      if (!isStopping()) look(isForced);
    } catch (const std::exception& error) {
      if (!isStopping()) fail(error.what());
    }
    lock.lock();
  }
}

void StoreFollower::look(bool isForced) {
  const FileState state = fileState();
  _lookedAt = state;
  const bool isFailed = !_failure.empty();
  if (isFailed && !isForced && state == _failedAt && steadyMillis() < _retryAt) return;
  if (isFailed || isForced || !state.isSameFile(_opened)) reopen();
  const std::int64_t mark = store()->changeMark();
  // Before reading, which may take long: what is written meanwhile is to be read, too.
  _lookedAt = fileState();
  if (isForced || isFailed || mark != _mark) refresh(isForced);
  _mark = mark;
  if (!std::exchange(_failure, "").empty()) _log.info("store_recovered", {{"db", _path}});
}

void StoreFollower::reopen() {
  const FileState state = fileState();
  if (!state.isSameFile(_opened)) _unreadable = {};
  setStore(nullptr);
  // Never makes a file: one that was taken away may be about to come back.
  setStore(std::make_shared<TableStore>(_path, TableStore::Mode::ReadWrite));
  _opened = state;
  _mark = -1;
}

void StoreFollower::refresh(bool isForced) {
  // First, so that a version that cannot be served does not keep it out.
  refreshConf();
  const auto loaded = store()->loadNewest([this, isForced](const StoredVersion& newest) {
    if (isSame(newest, _seen)) return true;
    // What clients report changes the file all the time, and reading a version may take long.
    if (!isForced && isSame(newest, _unreadable) && steadyMillis() < _retryAt)
      throw service::StoreError(_failure);
    _unreadable = newest;
    return false;
  });
  if (loaded) publish(*loaded);
  _unreadable = {};
}

void StoreFollower::publish(const TableStore::LoadedVersion& loaded) {
  if (isStopping()) return;
  std::shared_ptr<const TableVersion> table = loaded.table;
  const auto current = _service.current();
  // The file may have been put back to an older state; clients need a time stamp that rises.
  if (current && table->timesTamp() <= current->timesTamp()) {
    table = std::make_shared<const TableVersion>(
        service::TableData{table->ranges(), table->codes()}, current->timesTamp() + 1);
  }
  if (_steps.prepare) _steps.prepare(table, _stop.get_token());
  if (isStopping()) return;
  // An empty version is in the store because somebody forced it.
  _service.publish(table, service::EmptyTable::Allow);
  if (_steps.published) _steps.published();
  _seen = loaded.stored;
  _log.info("version_served", {{"version", _seen.number},
                               {"digest", _seen.digest},
                               {"ranges", _seen.ranges},
                               {"codes", _seen.codes},
                               {"times_tamp", table->timesTamp()},
                               {"from", _seen.source}});
}

void StoreFollower::refreshConf() {
  const ravel::ClientConf conf = store()->conf();
  if (isSame(conf, _service.getConf())) return;
  _service.restoreConf(conf);
  _log.info("conf_served", {{"conf_version", conf.confVersion}});
}

void StoreFollower::fail(const std::string& message) {
  _failedAt = _lookedAt;
  const std::int64_t now = steadyMillis();
  if (now >= _retryAt || message != _failure) _retryAt = now + kRetryMillis;
  if (message == _failure) return;
  _failure = message;
  const auto current = _service.current();
  _log.error("store_failed", {{"db", _path},
                              {"cause", message},
                              {"serving", current ? "the version read last" : "nothing"}});
}

StoreFollower::FileState StoreFollower::fileState() const {
  FileState state;
  struct stat file {};
  if (stat(_path.c_str(), &file) == 0) {
    state.device = file.st_dev;
    state.inode = file.st_ino;
    state.changedAt = nanos(file.st_mtim);
  }
  if (stat((_path + "-wal").c_str(), &file) == 0) state.logChangedAt = nanos(file.st_mtim);
  return state;
}

std::shared_ptr<TableStore> StoreFollower::store() {
  const std::lock_guard lock(_mutex);
  return _store;
}

void StoreFollower::setStore(std::shared_ptr<TableStore> store) {
  const std::lock_guard lock(_mutex);
  _store.swap(store);
}

}  // namespace tolvar::tools
