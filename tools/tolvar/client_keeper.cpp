#include "tools/tolvar/client_keeper.h"

namespace tolvar::tools {
namespace {

/// An attempt to come up waits half a minute for a table; at this pace, next to nothing.
constexpr int kEndingPace = 10000;

/// How the client begins the text of a failure of its own host rather than of the service.
constexpr const char* kOwnFailure = "initialize: ";

}  // namespace

ClientKeeper::ClientKeeper(ClientSession& session, PacedClock& clock, int pace)
    : _session(session), _clock(clock), _thread([this, pace] { run(pace); }) {}

ClientKeeper::~ClientKeeper() {
  _isEnding = true;
  _session.cancelCalls();
  _clock.setPace(kEndingPace);
  _thread.join();
}

std::string ClientKeeper::failure() const {
  const std::lock_guard lock(_mutex);
  return _failure;
}

void ClientKeeper::run(int pace) {
  while (!_isEnding) {
    if (_session.initialize()) {
      if (!_isEnding) _clock.setPace(pace);
      return;
    }
    const std::string error = _session.api().status().lastError;
    if (!error.starts_with(kOwnFailure)) continue;
    const std::lock_guard lock(_mutex);
    _failure = error;
    return;
  }
}

}  // namespace tolvar::tools
