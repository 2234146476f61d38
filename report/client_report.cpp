#include "report/client_report.h"

#include <unistd.h>

#include <utility>

#include "platform/abandon.h"
#include "report/report_courier.h"
#include "report/report_store.h"

ClientReport::ClientReport(qel::Clock& clock, int stopMillis)
    : _clock(clock),
      _stopMillis(stopMillis),
      _process(getpid()),
      _store(std::make_shared<tolvar::ReportStore>()),
      _courier(std::make_shared<tolvar::ReportCourier>(_store, clock, kIntervalMillis)) {}

ClientReport::~ClientReport() {
  if (isForkedCopy()) {
    abandonParents();
  } else {
    _courier->stop(_stopMillis);
  }
}

void ClientReport::report(ravel::ReportType type, std::string_view name) noexcept {
  _store->addHit(type, name);
}

void ClientReport::reportSimpleLog(const std::string& text, int limit) noexcept {
  _store->addLine(text, limit);
}

void ClientReport::setTolvarPrx(ravel::TolvarPrx proxy) {
  beginAnewAfterFork();
  _courier->setProxy(std::move(proxy));
}

void ClientReport::set_destructor_wait(bool wait) {
  beginAnewAfterFork();
  _courier->setDeliverAtEnd(wait);
}

void ClientReport::start() {
  beginAnewAfterFork();
  _courier->start();
}

void ClientReport::stop() {
  if (isForkedCopy()) return;
  if (!_courier->stop(_stopMillis)) _courier = _courier->successor();
}

bool ClientReport::isForkedCopy() const noexcept { return getpid() != _process; }

void ClientReport::abandonParents() noexcept {
  qel::abandon(_store);
  qel::abandon(_courier);
}

void ClientReport::beginAnewAfterFork() {
  if (!isForkedCopy()) return;
  auto store = std::make_shared<tolvar::ReportStore>();
  auto courier = std::make_shared<tolvar::ReportCourier>(store, _clock, kIntervalMillis);
  abandonParents();
  _store = std::move(store);
  _courier = std::move(courier);
  _process = getpid();
}
