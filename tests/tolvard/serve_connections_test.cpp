#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "tests/tolvard/serve_fixture.h"

namespace {

using testing::HasSubstr;
using tolvar_test::fieldOf;
using tolvar_test::ServiceClient;
using tolvar_test::TolvardProcess;

/// Connections to a port of the loopback that say nothing.
class SilentConnections {
 public:
  SilentConnections(const std::string& address, int count) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<in_port_t>(std::stoi(address.substr(address.rfind(':') + 1))));
    const void* const raw = &to;
    for (int i = 0; i < count; ++i) {
      _sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      EXPECT_EQ(connect(_sockets.back(), static_cast<const sockaddr*>(raw), sizeof to), 0);
    }
  }
  ~SilentConnections() { close(); }
  SilentConnections(const SilentConnections&) = delete;
  SilentConnections& operator=(const SilentConnections&) = delete;

  void close() {
    for (const int one : _sockets) ::close(one);
    _sockets.clear();
  }

  /// Closes so that the other side gets a reset.
  void reset() {
    const linger atOnce{1, 0};
    for (const int one : _sockets)
      EXPECT_EQ(setsockopt(one, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
    close();
  }

 private:
  std::vector<int> _sockets;
};

class ServeConnections : public tolvar_test::ServeFixture {
 protected:
  ServeConnections() { import(TOLVAR_SAMPLE); }

  static void limitDescriptors(const TolvardProcess& server, rlim_t count) {
    rlimit limit{};
    ASSERT_EQ(prlimit(server.id(), RLIMIT_NOFILE, nullptr, &limit), 0);
    limit.rlim_cur = count;
    ASSERT_EQ(prlimit(server.id(), RLIMIT_NOFILE, &limit, nullptr), 0);
  }

  static std::size_t openDescriptors(const TolvardProcess& server) {
    const std::filesystem::path files = "/proc/" + std::to_string(server.id()) + "/fd";
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(files),
                                                  std::filesystem::directory_iterator()));
  }

  static std::chrono::nanoseconds processorTime(const TolvardProcess& server) {
    clockid_t clock{};
    timespec used{};
    EXPECT_EQ(clock_getcpuclockid(server.id(), &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &used), 0);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
  }
};

TEST_F(ServeConnections, AreTakenAgainOnceDescriptorsAreFree) {
  TolvardProcess server(database());
  limitDescriptors(server, 64);
  SilentConnections crowd(server.address(), 100);
  const std::string full = server.awaitLine("event=connections_full");
  EXPECT_EQ(fieldOf(full, "limit"), "64 open files of the process");
  EXPECT_THAT(fieldOf(full, "hint"), HasSubstr("ulimit -n"));
  crowd.close();
  // The next line of all: the shortage is not told again.
  EXPECT_THAT(server.awaitLine("event="), HasSubstr("event=connections_resumed"));
  EXPECT_EQ(ServiceClient(server.address()).check("0").isReset, 1);
}

TEST_F(ServeConnections, AreTakenAgainOnceTheLimitIsRaised) {
  TolvardProcess server(database());
  limitDescriptors(server, 64);
  const SilentConnections crowd(server.address(), 100);
  server.awaitLine("event=connections_full");
  limitDescriptors(server, 256);
  server.awaitLine("event=connections_resumed");
  EXPECT_EQ(ServiceClient(server.address()).check("0").isReset, 1);
}

TEST_F(ServeConnections, LeaveDescriptorsToTheDatabaseWhenTheProcessIsFull) {
  TolvardProcess server(database());
  limitDescriptors(server, 64);
  ServiceClient early(server.address());
  EXPECT_EQ(early.check("0").isReset, 1);
  const SilentConnections crowd(server.address(), 100);
  server.awaitLine("event=connections_full");
  const auto usedBefore = processorTime(server);
  const auto begin = std::chrono::steady_clock::now();
  importText(rows(7, "Funk"));
  const std::string next = server.awaitLine("event=");
  EXPECT_THAT(next, HasSubstr("event=version_served version=2"));
  EXPECT_EQ(early.firstPage().IPContent.size(), 7u);
  // Connections that wait keep no thread turning.
  EXPECT_LT(processorTime(server) - usedBefore, (std::chrono::steady_clock::now() - begin) / 2);
}

TEST_F(ServeConnections, ThatAreGoneBeforeTheyAreTakenLeaveNothingBehind) {
  TolvardProcess server(database());
  EXPECT_EQ(ServiceClient(server.address()).check("0").isReset, 1);
  const std::size_t before = openDescriptors(server);
  server.signal(SIGSTOP);
  SilentConnections(server.address(), 100).reset();
  server.signal(SIGCONT);
  EXPECT_EQ(ServiceClient(server.address()).check("0").isReset, 1);
  // The test's time limit ends this.
  while (openDescriptors(server) > before + 5) {
  }
}

TEST_F(ServeConnections, AHostNameIsServedOnItsAddresses) {
  TolvardProcess server(database(), {}, "localhost:0");
  EXPECT_THAT(server.address(), testing::MatchesRegex("localhost:[1-9][0-9]*"));
  // By number: the transport's resolver leaks a few bytes over a name.
  const std::string port = server.address().substr(server.address().rfind(':'));
  EXPECT_EQ(ServiceClient("127.0.0.1" + port).check("0").isReset, 1);
}

TEST_F(ServeConnections, OfBothFamiliesComeToAnAddressThatMeansAll) {
  // A machine may have one family only; it is then served all the same.
  const bool hasSix = std::filesystem::exists("/proc/net/if_inet6");
  std::vector<std::string> addresses{"0.0.0.0:0"};
  if (hasSix) addresses.push_back("[::]:0");
  for (const std::string& all : addresses) {
    TolvardProcess server(database(), {"--insecure"}, all);
    const std::string port = server.address().substr(server.address().rfind(':'));
    EXPECT_EQ(ServiceClient("127.0.0.1" + port).check("0").isReset, 1) << all;
    if (!hasSix) continue;
    EXPECT_EQ(ServiceClient("[::1]" + port).check("0").isReset, 1) << all;
  }
}

class ServeUnixSocket : public ServeConnections {
 protected:
  std::string path() const { return directory.file("t.sock"); }
  std::string address() const { return "unix:" + path(); }

  /// What a service says that cannot listen there.
  std::string refusal(const std::string& address) const {
    const tolvar_test::ToolRun run = tolvard({"serve", "--listen", address});
    EXPECT_EQ(run.exitStatus, 2);
    return run.err;
  }
};

TEST_F(ServeUnixSocket, GoesWithTheServiceAtOnce) {
  TolvardProcess server(database(), {}, address());
  ServiceClient client(address());
  EXPECT_EQ(client.check("0").isReset, 1);
  const auto begin = std::chrono::steady_clock::now();
  server.signal(SIGTERM);
  EXPECT_EQ(server.awaitExit(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ServeUnixSocket, OfARunningServiceIsNotTaken) {
  TolvardProcess server(database(), {}, address());
  EXPECT_THAT(refusal(address()), AllOf(HasSubstr(address()), HasSubstr("in use")));
  EXPECT_EQ(ServiceClient(address()).check("0").isReset, 1);
}

TEST_F(ServeUnixSocket, ThatAKilledServiceLeftIsReplaced) {
  TolvardProcess killed(database(), {}, address());
  killed.signal(SIGKILL);
  EXPECT_EQ(killed.awaitExit(), -1);
  ASSERT_TRUE(std::filesystem::exists(path()));
  TolvardProcess server(database(), {}, address());
  EXPECT_EQ(ServiceClient(address()).check("0").isReset, 1);
}

TEST_F(ServeUnixSocket, OfASuccessorStays) {
  TolvardProcess first(database(), {}, address());
  std::filesystem::remove(path());
  TolvardProcess second(database(), {}, address());
  first.signal(SIGTERM);
  EXPECT_EQ(first.awaitExit(), 0);
  EXPECT_EQ(ServiceClient(address()).check("0").isReset, 1);
}

TEST_F(ServeUnixSocket, IsNotPutInAnotherFilesPlace) {
  tolvar_test::writeFile(path(), "somebody's");
  EXPECT_THAT(refusal(address()), AllOf(HasSubstr(address()), HasSubstr("no socket")));
  EXPECT_EQ(std::filesystem::file_size(path()), 10u);
  EXPECT_THAT(refusal("unix:" + directory.file("none/t.sock")), HasSubstr("directory"));
}

}  // namespace
