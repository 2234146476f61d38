#include "tools/tolvard/server/listening_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "platform/exception.h"
#include "platform/file.h"

namespace tolvar {
namespace {

constexpr int kSocketFlags = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
/// With port 0 and several addresses, the port that the first got may be taken at another.
constexpr int kPortAttempts = 16;

[[noreturn]] void fail(const ListenAddress& address, const std::string& why) {
  throw qel::ZU_Exception("cannot listen on " + address.text + ": " + why);
}

[[noreturn]] void fail(const ListenAddress& address, const std::string& why, int error) {
  throw qel::ZU_Exception("cannot listen on " + address.text + ": " + why, error);
}

const char* meaningOf(int error) {
  switch (error) {
    case EADDRINUSE:
      return "the address is in use; end the process that listens there or take another port";
    case EADDRNOTAVAIL:
    case EAFNOSUPPORT: return "the address is not this machine's";
    case EACCES:
    case EPERM: return "that is not permitted";
    default: return "the system refuses";
  }
}

/// An address of either family, as the system takes it.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  const sockaddr_in& four() const { return reinterpret_cast<const sockaddr_in&>(storage); }
  const sockaddr_in6& six() const { return reinterpret_cast<const sockaddr_in6&>(storage); }
  sockaddr_in& four() { return reinterpret_cast<sockaddr_in&>(storage); }
  sockaddr_in6& six() { return reinterpret_cast<sockaddr_in6&>(storage); }
  bool isSix() const { return storage.ss_family == AF_INET6; }
  int port() const { return ntohs(isSix() ? six().sin6_port : four().sin_port); }
  void setPort(int port) {
    (isSix() ? six().sin6_port : four().sin_port) = htons(static_cast<in_port_t>(port));
  }
  bool isWildcard() const {
    return isSix() ? IN6_IS_ADDR_UNSPECIFIED(&six().sin6_addr)
                   : four().sin_addr.s_addr == htonl(INADDR_ANY);
  }
  bool operator==(const SocketAddress& other) const {
    return size == other.size && std::memcmp(&storage, &other.storage, size) == 0;
  }
};

SocketAddress anySix(int port) {
  SocketAddress any;
  any.size = sizeof(sockaddr_in6);
  any.six().sin6_family = AF_INET6;
  any.six().sin6_addr = in6addr_any;
  any.setPort(port);
  return any;
}

/// 0.0.0.0 and [::] both mean all addresses of the machine, of either family: one socket takes
/// them, where there is IPv6.
bool isTakenByOne(const std::vector<SocketAddress>& all) {
  return all.size() == 1 && all[0].isWildcard() &&
         Descriptor(::socket(AF_INET6, kSocketFlags, 0)).number() >= 0;
}

std::vector<SocketAddress> resolved(const ListenAddress& address) {
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failed = getaddrinfo(address.host.c_str(), nullptr, &hints, &found);
  if (failed == EAI_SYSTEM) fail(address, "the host's addresses cannot be had", errno);
  if (failed != 0)
    fail(address, std::string("the host's addresses cannot be had: ") + gai_strerror(failed));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, freeaddrinfo);
  std::vector<SocketAddress> all;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    if (one->ai_family != AF_INET && one->ai_family != AF_INET6) continue;
    SocketAddress entry;
    std::memcpy(&entry.storage, one->ai_addr, one->ai_addrlen);
    entry.size = one->ai_addrlen;
    entry.setPort(address.port);
    // A hosts file may name one twice.
    if (std::find(all.begin(), all.end(), entry) == all.end()) all.push_back(entry);
  }
  if (isTakenByOne(all)) all = {anySix(address.port)};
  return all;
}

/// A socket that listens; none, and `error`, when it cannot be had.
std::optional<Descriptor> listeningOn(const SocketAddress& where, int unansweredMillis,
                                      int& error) {
  Descriptor descriptor(::socket(where.storage.ss_family, kSocketFlags, IPPROTO_TCP));
  const int number = descriptor.number();
  const auto set = [number](int level, int option, int value) {
    return setsockopt(number, level, option, &value, sizeof value) == 0;
  };
  if (number >= 0 && set(SOL_SOCKET, SO_REUSEADDR, 1) && set(IPPROTO_TCP, TCP_NODELAY, 1) &&
      set(IPPROTO_TCP, TCP_USER_TIMEOUT, unansweredMillis) &&
      (!where.isSix() || set(IPPROTO_IPV6, IPV6_V6ONLY, where.isWildcard() ? 0 : 1)) &&
      bind(number, where.get(), where.size) == 0 && ::listen(number, SOMAXCONN) == 0)
    return descriptor;
  error = errno;
  return std::nullopt;
}

int portOf(int descriptor) {
  SocketAddress own;
  own.size = sizeof own.storage;
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&own.storage), &own.size);
  return own.port();
}

/// A socket for each of `all`, with one port. Those that are not this machine's are left out; none,
/// and `error`, when another cannot be had.
std::vector<Descriptor> listeningOnEach(std::vector<SocketAddress> all, int unansweredMillis,
                                        int& error) {
  std::vector<Descriptor> sockets;
  for (SocketAddress& where : all) {
    if (!sockets.empty()) where.setPort(portOf(sockets[0].number()));
    auto socket = listeningOn(where, unansweredMillis, error);
    if (socket)
      sockets.push_back(std::move(*socket));
    else if (error != EADDRNOTAVAIL && error != EAFNOSUPPORT)
      return {};
  }
  return sockets;
}

/// While it lives, no other service looks at the unix sockets of a directory in order to replace or
/// remove one: between the look and the deed the file would be another. Who may not read the
/// directory, or waits in vain for the turn, goes without.
class DirectoryTurn {
 public:
  explicit DirectoryTurn(const std::string& path)
      : _directory(::open(qel::ZU_File::extractFilePath(path).c_str(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    for (int round = 0; round < kRounds && flock(_directory.number(), LOCK_EX | LOCK_NB) != 0 &&
                        errno == EWOULDBLOCK;
         ++round)
      poll(nullptr, 0, kRoundMillis);
  }

 private:
  static constexpr int kRoundMillis = 10;
  static constexpr int kRounds = 20;

  const Descriptor _directory;
};

/// Makes room for the file of a socket, or says why there is none.
void clearPath(const ListenAddress& address, const std::string& path, const sockaddr_un& name) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return;  // binding says what is wrong, if anything is
  if (!S_ISSOCK(found.st_mode))
    fail(address, "a file that is no socket is in the way; move it or take another path");
  const Descriptor probe(::socket(AF_UNIX, kSocketFlags, 0));
  if (probe.number() < 0) fail(address, "the system refuses a socket", errno);
  if (connect(probe.number(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 ||
      errno == EAGAIN || errno == EPROTOTYPE)
    fail(address, "the address is in use; a process listens on that socket");
  if (errno == ENOENT) return;
  if (errno != ECONNREFUSED)
    fail(address, "there is a socket, and whether it is in use cannot be told", errno);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    fail(address, "the socket that a former process left cannot be removed", errno);
}

}  // namespace

ListeningSocket::~ListeningSocket() {
  // While the socket is open, no other file gets the number of its own.
  if (isUnix() && descriptor() >= 0) removeFile();
}

void ListeningSocket::removeFile() const noexcept {
  try {
    const DirectoryTurn turn(_path);
    struct stat found {};
    if (lstat(_path.c_str(), &found) == 0 && found.st_dev == _device && found.st_ino == _inode)
      unlink(_path.c_str());
  } catch (const std::exception&) {
    // Without memory the file stays; the next service on the path replaces it.
  }
}

std::vector<ListeningSocket> ListeningSocket::open(const ListenAddress& address,
                                                   int unansweredMillis) {
  if (address.path.empty()) return openTcp(address, unansweredMillis);
  std::vector<ListeningSocket> one;
  one.push_back(openUnix(address));
  return one;
}

std::vector<ListeningSocket> ListeningSocket::openTcp(const ListenAddress& address,
                                                      int unansweredMillis) {
  const std::vector<SocketAddress> all = resolved(address);
  std::vector<ListeningSocket> sockets;
  int error = EADDRNOTAVAIL;
  for (int attempt = 0; attempt < kPortAttempts && sockets.empty(); ++attempt) {
    for (Descriptor& descriptor : listeningOnEach(all, unansweredMillis, error)) {
      const int port = portOf(descriptor.number());
      sockets.push_back(ListeningSocket(std::move(descriptor), port));
    }
    if (error != EADDRINUSE || address.port != 0) break;
  }
  if (sockets.empty()) fail(address, meaningOf(error), error);
  return sockets;
}

ListeningSocket ListeningSocket::openUnix(const ListenAddress& address) {
  // What the process does with its working directory later is all the same.
  const std::string path = std::filesystem::absolute(address.path).string();
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  address.path.copy(name.sun_path, sizeof name.sun_path - 1);
  const DirectoryTurn turn(path);
  clearPath(address, path, name);
  Descriptor descriptor(::socket(AF_UNIX, kSocketFlags, 0));
  struct stat made {};
  if (descriptor.number() < 0 ||
      bind(descriptor.number(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      ::listen(descriptor.number(), SOMAXCONN) != 0 || lstat(path.c_str(), &made) != 0)
    fail(address, meaningOf(errno), errno);
  ListeningSocket socket(std::move(descriptor), 1);
  socket._path = path;
  socket._device = made.st_dev;
  socket._inode = made.st_ino;
  return socket;
}

}  // namespace tolvar
