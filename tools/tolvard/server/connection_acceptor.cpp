#include "tools/tolvard/server/connection_acceptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/exception.h"

namespace tolvar {
namespace {

constexpr int kRetryMillis = 100;
constexpr std::chrono::seconds kCalm{1};

/// Descriptors that connections leave to the rest of the process, which cannot go on without: 3 for
/// each of the two parts that open the database (its file, log and index) and a few for SQLite's
/// temporary files, 3 for TLS files that are read again, some for the transport's own threads. Of a
/// very low limit a quarter, so that there is room for connections at all.
constexpr rlim_t kReserved = 32;

rlim_t descriptorLimit() {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

ConnectionShortage processIsFull() {
  return {
      std::to_string(descriptorLimit()) + " open files of the process",
      "raise the limit (ulimit -n before the start, or prlimit --nofile), or have fewer clients"};
}

ConnectionShortage shortageOf(int error) {
  switch (error) {
    case EMFILE: return processIsFull();
    case ENFILE:
      return {"open files of the machine", "raise fs.file-max, or end what has so many open"};
    case ENOBUFS:
    case ENOMEM: return {"memory for sockets", "free memory of the machine"};
    default:
      return {"the system gives no connection: " + std::generic_category().message(error),
              "it is tried again ten times a second"};
  }
}

/// The connection failed before it was taken, or there is none: nothing that the next would meet.
bool isOfOneConnection(int error) {
  constexpr int kErrors[] = {EAGAIN,     EINTR,       ECONNABORTED, EPROTO, EPERM,
                             ENETDOWN,   ENOPROTOOPT, EHOSTDOWN,    ENONET, EHOSTUNREACH,
                             EOPNOTSUPP, ENETUNREACH, ETIMEDOUT};
  return std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
}

Descriptor makeWake() {
  Descriptor wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (wake.number() < 0) throw qel::ZU_Exception("cannot make a descriptor to wake with", errno);
  return wake;
}

}  // namespace

ConnectionAcceptor::ConnectionAcceptor(std::vector<ListeningSocket> sockets, Handlers handlers)
    : _sockets(std::move(sockets)),
      _handlers(std::move(handlers)),
      _wake(makeWake()),
      _thread([this] { run(); }) {}

ConnectionAcceptor::~ConnectionAcceptor() { stop(); }

void ConnectionAcceptor::stop() {
  const std::lock_guard lock(_stopping);
  if (!_thread.joinable()) return;
  eventfd_write(_wake.number(), 1);
  _thread.join();
  _sockets.clear();
}

void ConnectionAcceptor::run() {
  std::vector<pollfd> watched{{_wake.number(), POLLIN, 0}};
  for (const ListeningSocket& socket : _sockets)
    watched.push_back({socket.descriptor(), POLLIN, 0});
  while (watched[0].revents == 0) {
    // A connection that cannot be taken would end the wait at once, again and again.
    const bool isPaused = std::exchange(_isPaused, false);
    const nfds_t count = isPaused ? 1 : watched.size();
    const int ready = poll(watched.data(), count, isPaused || _isFull ? kRetryMillis : -1);
    if (ready < 0 && errno != EINTR) pause(shortageOf(errno));
    for (std::size_t i = 1; ready > 0 && i < count && !_isPaused; ++i)
      if (watched[i].revents != 0) acceptFrom(_sockets[i - 1]);
    lookForRoom();
  }
}

void ConnectionAcceptor::acceptFrom(const ListeningSocket& socket) {
  if (!hasRoom()) return pause(processIsFull());
  const int connection =
      accept4(socket.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (connection >= 0) return _handlers.connected(socket, connection);
  if (!isOfOneConnection(errno)) pause(shortageOf(errno));
}

void ConnectionAcceptor::pause(const ConnectionShortage& shortage) {
  _isPaused = true;
  _pausedAt = std::chrono::steady_clock::now();
  if (!std::exchange(_isFull, true) && _handlers.full) _handlers.full(shortage);
}

/// Not at the first connection that is taken: clients that come and go would fill the log.
void ConnectionAcceptor::lookForRoom() {
  if (!_isFull || std::chrono::steady_clock::now() - _pausedAt < kCalm || !hasRoom()) return;
  _isFull = false;
  if (_handlers.resumed) _handlers.resumed();
}

/// The lowest descriptor that is free tells how many are taken.
bool ConnectionAcceptor::hasRoom() const {
  const Descriptor lowest(fcntl(_wake.number(), F_DUPFD_CLOEXEC, 0));
  if (lowest.number() < 0) return false;
  const rlim_t limit = descriptorLimit();
  return static_cast<rlim_t>(lowest.number()) < limit - std::min(kReserved, limit / 4);
}

}  // namespace tolvar
