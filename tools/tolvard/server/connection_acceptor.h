#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/tolvard/server/descriptor.h"
#include "tools/tolvard/server/listening_socket.h"

namespace tolvar {

/// What keeps connections waiting, and what helps.
struct ConnectionShortage {
  std::string limit;
  std::string hint;
};

/// Takes the connections of listening sockets in a thread of its own. When descriptors or memory
/// run out, connections wait in the system's queue until there is room again; then they are taken,
/// whatever was refused before.
class ConnectionAcceptor {
 public:
  /// Called from the acceptor's thread; quick, no exceptions.
  struct Handlers {
    /// A connection of a socket, which neither blocks nor is left open in programs that are run.
    /// Its descriptor belongs to the handler.
    std::function<void(const ListeningSocket& from, int connection)> connected;
    /// Connections wait from now on. May be empty.
    std::function<void(const ConnectionShortage& shortage)> full;
    /// There was room for all for a second; called once for each call of `full`. May be empty.
    std::function<void()> resumed;
  };

  /// Begins at once. Throws std::exception when the system has no thread or descriptor for it.
  ConnectionAcceptor(std::vector<ListeningSocket> sockets, Handlers handlers);
  ~ConnectionAcceptor();
  ConnectionAcceptor(const ConnectionAcceptor&) = delete;
  ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;

  /// Takes no more and closes the sockets; blocks until that is done, not for longer than a handler
  /// takes. May be called from any thread and again.
  void stop();

 private:
  using Moment = std::chrono::steady_clock::time_point;

  void run();
  void acceptFrom(const ListeningSocket& socket);
  void pause(const ConnectionShortage& shortage);
  void lookForRoom();
  bool hasRoom() const;

  std::vector<ListeningSocket> _sockets;
  const Handlers _handlers;
  const Descriptor _wake;  ///< readable: the thread is to end
  // Of the thread.
  bool _isPaused = false;  ///< no socket is looked at until kRetryMillis have passed
  bool _isFull = false;    ///< as the handlers were told
  Moment _pausedAt{};

  std::mutex _stopping;
  std::thread _thread;  ///< guarded by _stopping
};

}  // namespace tolvar
