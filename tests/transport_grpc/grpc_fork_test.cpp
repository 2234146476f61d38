// Processes that are forked from one which has used gRPC.
#include <gmock/gmock.h>

#include <optional>

#include "include/TolvarAPI.h"
#include "platform/exception.h"
#include "tests/support/forked_child.h"
#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"
#include "tests/transport_grpc/test_ports.h"
#include "tests/transport_grpc/test_tables.h"
#include "tools/tolvard/server/grpc_server.h"
#include "transport/grpc/grpc_communicator.h"

namespace {

using testing::HasSubstr;
using tolvar::GrpcCommunicator;
using tolvar_test::endsWellForked;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
constexpr const char* kFast = "Test.Server.FTolvarObj@tcp";

/// A service, and a process that has asked it.
class GrpcFork : public testing::Test {
 protected:
  GrpcFork() {
    tolvar::GrpcServerOptions serving;
    serving.listen = {"127.0.0.1:0"};
    server.emplace(tolvar_test::makeService(10), serving);
    const std::string address = tolvar_test::loopback(server->ports()[0]);
    grpc.endpoints = {{kMain, {address}}, {kFast, {address}}};
    communicator = std::make_unique<GrpcCommunicator>(grpc);
    communicator->stringToProxy(kMain, main);
    ask();
  }

  void ask() {
    ravel::ClientConf conf;
    EXPECT_EQ(main->getConf(conf), 0);
  }

  TolvarAPIOptions client(qel::Communicator& through) const {
    return {&through,         kMain,       kFast, keys.data0(), keys.data1(),
            directory.path(), keys.size(), false};
  }

  const tolvar_test::ShmKeys keys;
  const tolvar_test::WorkingDirectory directory;
  std::optional<tolvar::GrpcServer> server;
  tolvar::GrpcOptions grpc;
  std::unique_ptr<GrpcCommunicator> communicator;
  ravel::TolvarPrx main;
};

/// 0 when `act` throws what a forked copy is told.
template <class Act>
int isRefused(Act act) {
  try {
    act();
  } catch (const qel::ZU_Exception& error) {
    return std::string(error.what()).find("fork before the first one is made") == std::string::npos
               ? 2
               : 0;
  }
  return 1;
}

TEST_F(GrpcFork, ACommunicatorInAChildIsRefusedInsteadOfHanging) {
  EXPECT_TRUE(endsWellForked([&] {
    return isRefused([&] {
      GrpcCommunicator own(grpc);
      ravel::TolvarPrx proxy;
      own.stringToProxy(kMain, proxy);
      ravel::ClientConf conf;
      proxy->getConf(conf);
    });
  }));
  ask();
}

TEST_F(GrpcFork, ACallThroughTheParentsProxyIsRefused) {
  EXPECT_TRUE(endsWellForked([&] {
    return isRefused([&] {
      ravel::ClientConf conf;
      main->getConf(conf);
    });
  }));
  EXPECT_TRUE(endsWellForked([&] { return isRefused([&] { main->selectServer(1); }); }));
  ask();
}

TEST_F(GrpcFork, AStartOnTheParentsCommunicatorSaysWhatToDo) {
  EXPECT_TRUE(endsWellForked([&] {
    TolvarAPI own;
    if (own.initialize(client(*communicator))) return 1;
    const std::string error = own.status().lastError;
    return error.find("fork before the first one is made") == std::string::npos ? 2 : 0;
  }));
  ask();
}

TEST_F(GrpcFork, AChildDestroysItsCopyAndTheParentsConnectionStays) {
  EXPECT_TRUE(endsWellForked([&] {
    communicator.reset();
    return 0;
  }));
  ask();
}

}  // namespace
