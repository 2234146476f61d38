#include "tools/tolvard/serve/usage_writer.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
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
  for (bool isLast = false; !isLast;) {
    _wake.wait_for(lock, std::chrono::milliseconds(kBatchMillis), [this] { return _isStopping; });
    isLast = _isStopping;
    lock.unlock();
    flush(isLast ? kLastBusyMillis : kBusyMillis);
    lock.lock();
  }
  lock.unlock();
  tellLoss();
}

void UsageWriter::flush(int busyMillis) {
  try {
    // What was held back, then what came meanwhile.
    if (!_pending.isEmpty()) store(busyMillis);
    _pending = _service.takeUsage();
    if (!_pending.isEmpty()) store(busyMillis);
  } catch (const std::exception& error) {
    if (_failure == error.what()) return;
    _failure = error.what();
    _log.error("usage_not_stored", {{"db", _path}, {"cause", _failure}});
  }
}

void UsageWriter::store(int busyMillis) {
  // Opened anew each time, so that a file that took the place of another is the one written.
  service::TableStore store(_path, service::TableStore::Mode::ReadWrite);
  store.relaxWrites(busyMillis);
  store.addUsage(_pending, {});
  _pending = {};
  if (!std::exchange(_failure, "").empty()) _log.info("usage_stored_again", {{"db", _path}});
}

void UsageWriter::tellLoss() {
  std::uint64_t hits = 0;
  std::size_t lines = 0;
  const service::Usage since = _service.takeUsage();
  for (const service::Usage* lost :
       std::initializer_list<const service::Usage*>{&_pending, &since}) {
    for (const ravel::ReportCount& report : lost->counts)
      hits += std::min(report.count, UINT64_MAX - hits);
    lines += lost->lines.size();
  }
  if (hits + lines != 0) _log.error("usage_lost", {{"hits", hits}, {"lines", lines}});
}

}  // namespace tolvar::tools
