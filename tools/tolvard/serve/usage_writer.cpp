#include "tools/tolvard/serve/usage_writer.h"

#include <chrono>
#include <utility>

#include "service/store/table_store.h"

namespace tolvar::tools {
namespace {

constexpr int kBusyMillis = 1000;
constexpr int kLastBusyMillis = 500;

}  // namespace

UsageWriter::UsageWriter(std::string path, service::LookupService& service, EventLog& log)
    : _path(std::move(path)), _service(service), _log(log), _thread([this] { run(); }) {}

UsageWriter::~UsageWriter() {
  {
    const std::lock_guard lock(_mutex);
    _isStopping = true;
  }
  _wake.notify_one();
  _thread.join();
}

void UsageWriter::run() {
  std::unique_lock lock(_mutex);
  while (!_isStopping) {
    _wake.wait_for(lock, std::chrono::milliseconds(kBatchMillis), [this] { return _isStopping; });
    const int busyMillis = _isStopping ? kLastBusyMillis : kBusyMillis;
    lock.unlock();
    flush(busyMillis);
    lock.lock();
  }
}

void UsageWriter::flush(int busyMillis) {
  if (_pending.isEmpty()) _pending = _service.takeUsage();
  if (_pending.isEmpty()) return;
  try {
    // Opened anew each time, so that a file that took the place of another is the one written.
    service::TableStore store(_path, service::TableStore::Mode::ReadWrite);
    store.relaxWrites(busyMillis);
    store.addUsage(_pending, {});
    _pending = {};
    if (!std::exchange(_failure, "").empty()) _log.info("usage_stored_again", {{"db", _path}});
  } catch (const std::exception& error) {
    if (_failure == error.what()) return;
    _failure = error.what();
    _log.error("usage_not_stored", {{"db", _path}, {"cause", _failure}});
  }
}

}  // namespace tolvar::tools
