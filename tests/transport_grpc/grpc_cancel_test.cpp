#include <gmock/gmock.h>

#include <chrono>
#include <future>

#include "platform/exception.h"
#include "tests/transport_grpc/scripted_server.h"
#include "tests/transport_grpc/test_ports.h"
#include "transport/grpc/grpc_communicator.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::AllOf;
using testing::HasSubstr;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar_test::ScriptedServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";

/// A call of getConf on a thread of its own; answers its failure text and when it ended.
struct Ending {
  std::string failure;
  steady_clock::time_point at;
};

std::future<Ending> callInBackground(ravel::TolvarPrx proxy) {
  return std::async(std::launch::async, [proxy] {
    ravel::ClientConf conf;
    try {
      proxy->getConf(conf);
    } catch (const qel::ZU_Exception& error) {
      return Ending{error.what(), steady_clock::now()};
    }
    return Ending{"no failure", steady_clock::now()};
  });
}

void expectEndedWithin200ms(std::future<Ending>& call, steady_clock::time_point cancelled) {
  const Ending ending = call.get();
  EXPECT_THAT(ending.failure,
              AllOf(HasSubstr("CANCELLED"), HasSubstr("the client ended the call")));
  EXPECT_LT(ending.at - cancelled, milliseconds(200));
}

/// A service whose getConf does not answer before the test ends.
class GrpcCancel : public testing::Test {
 protected:
  GrpcCancel() : server(scriptOf(barrier)) {
    GrpcOptions options;
    options.endpoints = {{kMain, {server.address()}}};
    options.checkDeadline = milliseconds(30000);
    communicator = std::make_unique<GrpcCommunicator>(options);
    communicator->stringToProxy(kMain, proxy);
  }
  ~GrpcCancel() override { barrier.open(); }

  static ScriptedServer::Script scriptOf(tolvar_test::Barrier& barrier) {
    ScriptedServer::Script script;
    script.getConf = [&barrier](auto&, auto&) {
      barrier.pass();
      return grpc::Status::OK;
    };
    return script;
  }

  tolvar_test::Barrier barrier;
  ScriptedServer server;
  std::unique_ptr<GrpcCommunicator> communicator;
  ravel::TolvarPrx proxy;
};

TEST_F(GrpcCancel, EndOfTheCommunicatorCancelsCallsUnderWay) {
  auto first = callInBackground(proxy);
  auto second = callInBackground(proxy->selectServer(1));
  barrier.awaitArrivals(2);
  const auto begin = steady_clock::now();
  communicator->end();
  expectEndedWithin200ms(first, begin);
  expectEndedWithin200ms(second, begin);
}

TEST_F(GrpcCancel, DestructionOfTheCommunicatorCancelsCallsUnderWay) {
  auto call = callInBackground(proxy);
  barrier.awaitArrivals(1);
  const auto begin = steady_clock::now();
  communicator.reset();
  expectEndedWithin200ms(call, begin);
}

TEST_F(GrpcCancel, AProxyCancelsItsOwnFamilyOnly) {
  ravel::TolvarPrx other;
  communicator->stringToProxy(kMain, other);
  auto own = callInBackground(proxy->selectServer(5));
  auto foreign = callInBackground(other);
  barrier.awaitArrivals(2);
  const auto begin = steady_clock::now();
  proxy->cancelCalls();
  expectEndedWithin200ms(own, begin);
  barrier.open();
  EXPECT_EQ(foreign.get().failure, "no failure");
  EXPECT_EQ(callInBackground(proxy).get().failure, "no failure");  // later calls are not touched
}

TEST_F(GrpcCancel, CallsThatWaitForAConnectionAreCancelledToo) {
  for (const bool listening : {false, true}) {
    const tolvar_test::DeadPort dead(listening);
    GrpcOptions options;
    options.endpoints = {{kMain, {dead.address()}}};
    options.checkDeadline = milliseconds(30000);
    GrpcCommunicator unreachable(options);
    ravel::TolvarPrx waiting;
    unreachable.stringToProxy(kMain, waiting);
    auto call = callInBackground(waiting);
    // Nothing tells from outside that the call waits; cancel until it ends.
    auto begin = steady_clock::now();
    do {
      begin = steady_clock::now();
      waiting->cancelCalls();
    } while (call.wait_for(milliseconds(200)) != std::future_status::ready);
    expectEndedWithin200ms(call, begin);
  }
}

}  // namespace
