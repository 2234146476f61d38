#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "platform/clock.h"

namespace tolvar {

/// Counts the full downloads under way, so that a service takes on no more than it means to. A
/// download belongs to a peer (a connection), begins when the peer is told to download, and ends
/// with its last page or after `kIdleMillis` without a page. All operations may be called from any
/// thread.
class DownloadGate {
 public:
  /// Above the deadline of a page, so that a slow page does not give its place away.
  static constexpr std::int64_t kIdleMillis = 15000;

  /// `limit` downloads at a time; at least 1 is taken. `clock` outlives the gate.
  explicit DownloadGate(std::size_t limit, qel::Clock& clock = qel::systemClock());

  /// Takes a place for `peer`, or keeps the one it has. False when all places are taken.
  bool admit(const std::string& peer);

  /// `peer` fetched a page. One that never asked gets a place if there is one; downloads under way
  /// are not refused.
  void pageSent(const std::string& peer);

  /// `peer` has everything.
  void finished(const std::string& peer);

  std::size_t active() const;

 private:
  bool takeLocked(const std::string& peer);

  const std::size_t _limit;
  qel::Clock& _clock;
  mutable std::mutex _mutex;
  std::map<std::string, std::int64_t> _until;  ///< guarded by _mutex; end of each place, steady ms
};

}  // namespace tolvar
