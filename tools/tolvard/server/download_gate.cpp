#include "tools/tolvard/server/download_gate.h"

#include <algorithm>

namespace tolvar {

DownloadGate::DownloadGate(std::size_t limit, qel::Clock& clock)
    : _limit(std::max<std::size_t>(1, limit)), _clock(clock) {}

bool DownloadGate::admit(const std::string& peer) {
  const std::lock_guard lock(_mutex);
  return takeLocked(peer);
}

void DownloadGate::pageSent(const std::string& peer) {
  const std::lock_guard lock(_mutex);
  takeLocked(peer);
}

void DownloadGate::finished(const std::string& peer) {
  const std::lock_guard lock(_mutex);
  _until.erase(peer);
}

std::size_t DownloadGate::active() const {
  const std::lock_guard lock(_mutex);
  const std::int64_t now = _clock.steadyMillis();
  return static_cast<std::size_t>(
      std::count_if(_until.begin(), _until.end(), [now](const auto& e) { return e.second > now; }));
}

bool DownloadGate::takeLocked(const std::string& peer) {
  const std::int64_t now = _clock.steadyMillis();
  const auto own = _until.find(peer);
  if (own != _until.end()) {
    own->second = now + kIdleMillis;
    return true;
  }
  if (_until.size() >= _limit)
    std::erase_if(_until, [now](const auto& e) { return e.second <= now; });
  if (_until.size() >= _limit) return false;
  _until.emplace(peer, now + kIdleMillis);
  return true;
}

}  // namespace tolvar
