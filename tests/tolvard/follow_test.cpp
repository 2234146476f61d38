// What a company sees: services and clients as processes, versions imported next to them, and
// services that are killed while clients download.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <list>
#include <memory>
#include <random>

#include "tests/support/shm_keys.h"
#include "tests/tolvard/watch_fixture.h"
#include "tests/transport_grpc/test_certificates.h"

namespace {

using testing::HasSubstr;
using tolvar_test::ChildProcess;
using tolvar_test::ShmKeys;
using tolvar_test::TestAuthority;
using tolvar_test::TolvardProcess;
using tolvar_test::ToolRun;

constexpr int kClients = 4;

/// Several pages.
constexpr std::uint32_t kManyRanges = 160000;

/// An address for a service that is killed and comes back. Below the ports that the kernel gives to
/// connections, so that none of the clients' takes it while the service is down.
std::string steadyAddress() {
  std::random_device random;
  while (true) {
    const auto port = static_cast<std::uint16_t>(15000 + random() % 15000);
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool isFree =
        bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    if (isFree) return "127.0.0.1:" + std::to_string(port);
  }
}

class Follow : public tolvar_test::WatchFixture {
 protected:
  void startClients(const std::vector<std::string>& arguments) {
    for (int i = 0; i < kClients; ++i) clients.emplace_back(watch(arguments));
  }

  /// Every client comes to answer from what the newest version holds.
  void expectAllFollow() {
    const std::string digest = newestDigest();
    for (ChildProcess& client : clients) awaitDigest(client, digest);
  }

  std::list<ChildProcess> clients;
};

TEST_F(Follow, EveryClientFollowsImportsAndRollbacks) {
  importText(rows(100, "Netz"));
  const TolvardProcess service(database());
  startClients({"--service", service.address()});
  const ShmKeys keys;
  const std::string keyList = std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) +
                              "," + std::to_string(keys.size());
  // The last client shares its image with the lookups below, which need no service of their own.
  clients.emplace_back(watch({"--service", service.address(), "--keys", keyList}));
  const auto answer = [&] {
    return lookup({"--service", "127.0.0.1:1", "--keys", keyList, "0.0.0.18"}).out;
  };
  expectAllFollow();
  EXPECT_THAT(answer(), HasSubstr("operator=Netz"));

  importText(rows(120, "Funk"));
  expectAllFollow();
  EXPECT_THAT(lookup({"--service", service.address(), "0.0.7.121"}).out,
              HasSubstr("operator=Funk"));

  ASSERT_EQ(tolvard({"rollback", "1"}).exitStatus, 0);
  expectAllFollow();
  EXPECT_THAT(answer(), HasSubstr("operator=Netz"));
  EXPECT_EQ(lookup({"--service", service.address(), "0.0.7.121"}).exitStatus, 1);
}

/// With and without encryption.
class FollowKilledService : public Follow, public testing::WithParamInterface<bool> {
 protected:
  FollowKilledService() : authority("authority") {
    serve = {"--verbose"};
    connect = {"--service", address};
    if (!GetParam()) return;
    const tolvar::GrpcTlsFiles server = authority.issue("server", "127.0.0.1");
    const tolvar::GrpcTlsFiles client = authority.issue("client", "host");
    serve.insert(serve.end(), {"--tls-cert", server.certFile, "--tls-key", server.keyFile,
                               "--tls-ca", authority.caFile()});
    connect.insert(connect.end(), {"--tls-ca", authority.caFile(), "--tls-cert", client.certFile,
                                   "--tls-key", client.keyFile});
  }

  std::unique_ptr<TolvardProcess> startService() const {
    return std::make_unique<TolvardProcess>(database(), serve, address);
  }

  static void kill(TolvardProcess& service) {
    service.signal(SIGKILL);
    EXPECT_EQ(service.awaitExit(), -1);
  }

  TestAuthority authority;
  const std::string address = steadyAddress();
  std::vector<std::string> serve;
  std::vector<std::string> connect;
};

TEST_P(FollowKilledService, ClientsEndUpWithTheRightTable) {
  importText(rows(kManyRanges, "Netz"));
  auto service = startService();
  startClients(connect);
  // In the middle of a first download, before any client answers.
  service->awaitLine("op=FirstDownloadPage");
  kill(*service);
  service = startService();
  expectAllFollow();
  // In the middle of later ones, each time with another table to come.
  for (std::uint32_t round = 1; round <= 3; ++round) {
    importText(rows(kManyRanges + round, "Funk" + std::to_string(round)));
    service->awaitLine("op=DownloadPage");
    kill(*service);
    service = startService();
  }
  expectAllFollow();
  std::vector<std::string> arguments = connect;
  arguments.push_back("0.39.16.41");  // in the last range
  const ToolRun answer = lookup(arguments);
  EXPECT_EQ(answer.exitStatus, 0) << answer.err;
  EXPECT_THAT(answer.out, HasSubstr("operator=Funk3"));
}

INSTANTIATE_TEST_SUITE_P(Transport, FollowKilledService, testing::Bool(),
                         [](const auto& param) { return param.param ? "Encrypted" : "Clear"; });

TEST_F(Follow, ClientsOfSeveralEndpointsFollowThoseThatAreLeft) {
  importText(rows(100, "Netz"));
  const std::string firstAddress = steadyAddress();
  auto first =
      std::make_unique<TolvardProcess>(database(), std::vector<std::string>{}, firstAddress);
  TolvardProcess second(database());
  TolvardProcess third(database());
  startClients({"--service", firstAddress, "--service", second.address() + "," + third.address()});
  expectAllFollow();

  first->signal(SIGKILL);
  first->awaitExit();
  importText(rows(110, "Funk"));
  expectAllFollow();

  first = std::make_unique<TolvardProcess>(database(), std::vector<std::string>{}, firstAddress);
  second.signal(SIGKILL);
  third.signal(SIGKILL);
  importText(rows(120, "Welle"));
  expectAllFollow();
}

}  // namespace
