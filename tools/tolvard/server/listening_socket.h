#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/tolvard/server/descriptor.h"
#include "tools/tolvard/server/listen_address.h"

namespace tolvar {

/// A socket that listens, and with a unix socket the file that clients find it by. Both go with the
/// object; of the file only the one that it made, not another that has taken its place. Moved, not
/// copied; used by one thread at a time.
class ListeningSocket {
 public:
  /// Listens on `address`: one socket for each address that its host name has, all with the same
  /// port. A port or a unix socket that somebody serves already is not shared; the file of a unix
  /// socket that nobody serves any more is replaced. Connections get the TCP options of the socket:
  /// no delay, and an end when the other side has acknowledged nothing for `unansweredMillis`.
  ///
  /// Throws ZU_Exception saying what is in the way.
  static std::vector<ListeningSocket> open(const ListenAddress& address, int unansweredMillis);

  ~ListeningSocket();
  ListeningSocket(ListeningSocket&&) noexcept = default;
  ListeningSocket& operator=(ListeningSocket&&) = delete;

  /// Does not block, and is closed in programs that this one runs.
  int descriptor() const noexcept { return _descriptor.number(); }

  /// 1 for a unix socket.
  int port() const noexcept { return _port; }

  bool isUnix() const noexcept { return !_path.empty(); }

 private:
  ListeningSocket(Descriptor descriptor, int port)
      : _descriptor(std::move(descriptor)), _port(port) {}

  static std::vector<ListeningSocket> openTcp(const ListenAddress& address, int unansweredMillis);
  static ListeningSocket openUnix(const ListenAddress& address);
  void removeFile() const noexcept;

  Descriptor _descriptor;
  int _port;
  std::string _path;  ///< absolute, of a unix socket's file; else empty
  dev_t _device = 0;  ///< of that file
  ino_t _inode = 0;
};

}  // namespace tolvar
