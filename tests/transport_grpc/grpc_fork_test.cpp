#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "include/TolvarAPI.h"
#include "platform/exception.h"
#include "tests/support/forked_child.h"
#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"
#include "tests/transport_grpc/scripted_server.h"
#include "tests/transport_grpc/test_ports.h"
#include "transport/grpc/grpc_communicator.h"

namespace {

using tolvar::GrpcCommunicator;
using tolvar_test::endsWellForked;
using tolvar_test::ScriptedServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
constexpr const char* kFast = "Test.Server.FTolvarObj@tcp";

tolvar::GrpcOptions optionsFor(const std::string& address) {
  tolvar::GrpcOptions options;
  options.endpoints = {{kMain, {address}}, {kFast, {address}}};
  return options;
}

std::string failureOf(ravel::TolvarProxy& proxy) {
  ravel::ClientConf conf;
  try {
    proxy.getConf(conf);
  } catch (const qel::ZU_Exception& error) {
    return error.what();
  }
  return "no failure";
}

/// A parent with a connection to a server.
class GrpcFork : public testing::Test {
 protected:
  GrpcFork() : communicator(std::make_unique<GrpcCommunicator>(optionsFor(server.address()))) {
    communicator->stringToProxy(kMain, proxy);
    EXPECT_EQ(failureOf(*proxy), "no failure");
  }

  ScriptedServer server{{}};
  std::unique_ptr<GrpcCommunicator> communicator;
  ravel::TolvarPrx proxy;
};

TEST_F(GrpcFork, AChildIsRefusedACommunicatorOfItsOwn) {
  EXPECT_TRUE(endsWellForked([&] {
    try {
      GrpcCommunicator own(optionsFor(server.address()));
    } catch (const qel::ZU_Exception& error) {
      return std::string(error.what()).find("forked") == std::string::npos ? 2 : 0;
    }
    return 1;
  }));
}

TEST_F(GrpcFork, AChildsCallsThroughItsParentsConnectionFailAtOnce) {
  EXPECT_TRUE(endsWellForked([&] {
    const std::string wanted = "getConf at " + server.address() + ": FAILED_PRECONDITION";
    if (!failureOf(*proxy).starts_with(wanted)) return 1;
    return failureOf(*proxy->selectServer(3)).starts_with(wanted) ? 0 : 2;
  }));
  EXPECT_EQ(failureOf(*proxy), "no failure");
}

TEST_F(GrpcFork, AStartOnTheParentsCommunicatorSaysWhatToDo) {
  const tolvar_test::ShmKeys keys;
  const tolvar_test::WorkingDirectory directory;
  EXPECT_TRUE(endsWellForked([&] {
    TolvarAPI own;
    if (own.initialize({communicator.get(), kMain, kFast, keys.data0(), keys.data1(),
                        directory.path(), keys.size(), false}))
      return 1;
    const std::string error = own.status().lastError;
    return error.find("make one in each child") == std::string::npos ? 2 : 0;
  }));
  EXPECT_EQ(failureOf(*proxy), "no failure");
}

TEST_F(GrpcFork, AChildMayDestroyWhateverItsParentWasAt) {
  const tolvar_test::DeadPort silent(true);
  tolvar::GrpcOptions waiting = optionsFor(silent.address());
  waiting.endpoints[kMain].push_back(server.address());
  communicator = std::make_unique<GrpcCommunicator>(waiting);
  communicator->stringToProxy(kMain, proxy);
  std::atomic<bool> isOver{false};
  std::thread caller([&, used = proxy] {
    while (!isOver) {
      ravel::downloadInfo page;
      try {
        used->selectServer(1)->totalDownloadIPInfo(0, 0, 1, page);
      } catch (const qel::ZU_Exception&) {
      }
      failureOf(*used);
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(endsWellForked([&] {
      proxy->cancelCalls();
      communicator.reset();
      proxy.reset();
      return 0;
    }));
  }
  isOver = true;
  communicator->end();
  caller.join();
}

}  // namespace
