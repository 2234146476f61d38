#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <map>

#include "platform/exception.h"
#include "tests/transport_grpc/scripted_server.h"
#include "tests/transport_grpc/test_ports.h"
#include "transport/grpc/endpoint_set.h"
#include "transport/grpc/grpc_communicator.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar_test::DeadPort;
using tolvar_test::ScriptedServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";

/// A server that tells itself from others by the configuration version.
ScriptedServer::Script numbered(int number) {
  ScriptedServer::Script script;
  script.getConf = [number](auto&, tolvar::v1::ClientConf& conf) {
    conf.set_conf_version(number);
    return grpc::Status::OK;
  };
  return script;
}

int answeringServer(ravel::TolvarProxy& proxy) {
  ravel::ClientConf conf;
  proxy.getConf(conf);
  return conf.confVersion;
}

ravel::TolvarPrx proxyOf(GrpcCommunicator& communicator) {
  ravel::TolvarPrx proxy;
  communicator.stringToProxy(kMain, proxy);
  return proxy;
}

GrpcOptions optionsFor(std::vector<std::string> addresses) {
  GrpcOptions options;
  options.endpoints = {{kMain, std::move(addresses)}};
  return options;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST(ChosenIndex, CoversAllServersEvenlyWithKeysOfAnySign) {
  std::map<std::size_t, int> hits;
  for (std::int64_t key = -150; key < 150; ++key) ++hits[tolvar::chosenIndex(key, 3)];
  ASSERT_EQ(hits.size(), 3u);
  for (const auto& [index, count] : hits) EXPECT_NEAR(count, 100, 2);
  EXPECT_EQ(tolvar::chosenIndex(INT64_MIN, 1), 0u);
}

TEST(GrpcEndpoints, TheSameKeyChoosesTheSameServerAndKeysSpread) {
  ScriptedServer one(numbered(1)), two(numbered(2)), three(numbered(3));
  GrpcCommunicator communicator(optionsFor({one.address(), two.address(), three.address()}));
  const ravel::TolvarPrx proxy = proxyOf(communicator);
  std::map<int, int> hits;
  for (std::int64_t key = 1700000000; key < 1700000030; ++key) {
    const int server = answeringServer(*proxy->selectServer(key));
    EXPECT_EQ(answeringServer(*proxy->selectServer(key)), server);
    ++hits[server];
  }
  EXPECT_EQ(hits, (std::map<int, int>{{1, 10}, {2, 10}, {3, 10}}));
}

TEST(GrpcEndpoints, ADeadServerIsPassedOver) {
  const DeadPort dead;
  ScriptedServer alive(numbered(1));
  GrpcCommunicator communicator(optionsFor({dead.address(), alive.address()}));
  const ravel::TolvarPrx proxy = proxyOf(communicator);
  const auto begin = steady_clock::now();
  for (std::int64_t key = 0; key < 20; ++key)
    EXPECT_EQ(answeringServer(*proxy->selectServer(key)), 1);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(2500));
}

TEST(GrpcEndpoints, AServerThatTakesConnectionsAndNeverAnswersIsPassedOver) {
  const DeadPort silent(true);
  ScriptedServer alive(numbered(1));
  for (const bool isConnected : {false, true}) {
    GrpcCommunicator communicator(optionsFor({silent.address(), alive.address()}));
    const ravel::TolvarPrx proxy = proxyOf(communicator);
    if (isConnected) {
      EXPECT_EQ(answeringServer(*proxy->selectServer(1)), 1);
    }
    EXPECT_EQ(answeringServer(*proxy->selectServer(0)), 1);
  }
}

TEST(GrpcEndpoints, CallsWithoutAChoiceTryTheNextServer) {
  const DeadPort dead;
  const DeadPort silent(true);
  ScriptedServer alive(numbered(1));
  // Clients begin with a random server; some of these begin with a dead one.
  for (int round = 0; round < 6; ++round) {
    GrpcCommunicator communicator(optionsFor({dead.address(), silent.address(), alive.address()}));
    EXPECT_EQ(answeringServer(*proxyOf(communicator)), 1);
  }
}

TEST(GrpcEndpoints, AServerThatStopsIsLeftAndFoundAgain) {
  auto first = std::make_unique<ScriptedServer>(numbered(1));
  const int port = first->port();
  ScriptedServer second(numbered(2));
  GrpcOptions options = optionsFor({first->address(), second.address()});
  options.checkDeadline = milliseconds(400);
  GrpcCommunicator communicator(options);
  const ravel::TolvarPrx proxy = proxyOf(communicator);
  ASSERT_EQ(answeringServer(*proxy->selectServer(0)), 1);
  first.reset();
  const ravel::TolvarPrx bound = proxy->selectServer(0);
  try {
    answeringServer(*bound);
  } catch (const qel::ZU_Exception&) {
    // The connection may not have been known to be gone when the server was chosen.
  }
  EXPECT_EQ(answeringServer(*proxy->selectServer(0)), 2);

  first = std::make_unique<ScriptedServer>(numbered(1), port);
  const auto limit = steady_clock::now() + std::chrono::seconds(20);
  int server = 0;
  while (server != 1 && steady_clock::now() < limit)
    server = answeringServer(*proxy->selectServer(0));
  EXPECT_EQ(server, 1);
}

TEST(GrpcEndpoints, WhenAllAreDownTheChosenOneIsCalledAndNamed) {
  const DeadPort one, two;
  GrpcOptions options = optionsFor({one.address(), two.address()});
  options.checkDeadline = milliseconds(300);
  GrpcCommunicator communicator(options);
  const ravel::TolvarPrx proxy = proxyOf(communicator);
  for (const auto& [key, address] : {std::pair{0, one.address()}, std::pair{1, two.address()}}) {
    try {
      answeringServer(*proxy->selectServer(key));
      ADD_FAILURE() << "nobody listens there";
    } catch (const qel::ZU_Exception& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr("getConf at " + address + ": UNAVAILABLE"));
    }
  }
}

TEST(GrpcEndpoints, AServiceThatIsDownCostsLittleAndPrintsNothing) {
  const DeadPort dead;
  GrpcOptions options = optionsFor({dead.address()});
  options.checkDeadline = milliseconds(2000);
  GrpcCommunicator communicator(options);
  const ravel::TolvarPrx proxy = proxyOf(communicator);
  testing::internal::CaptureStderr();
  const double before = cpuSeconds();
  EXPECT_THROW(answeringServer(*proxy), qel::ZU_Exception);
  const double used = cpuSeconds() - before;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_LT(used, 0.4);
}

}  // namespace
