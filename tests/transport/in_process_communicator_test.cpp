#include "transport/in_process_communicator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

namespace tolvar {
namespace {

const std::string kMain = "Ip.Server.TolvarObj@tcp";
const std::string kFirst = "Ip.Server.FTolvarObj@tcp";

service::TableData tableOf(std::uint32_t size) {
  service::TableData data;
  for (std::uint32_t i = 0; i < size; ++i) {
    ravel::IPProperty& range = data.ranges.emplace_back();
    range.startIP = range.endIP = i;
  }
  data.codes.emplace_back().content = "name";
  return data;
}

template <class CallT>
std::string messageOf(CallT&& call) {
  try {
    call();
  } catch (const qel::ZU_Exception& error) {
    return error.what();
  }
  return "";
}

class InProcess : public testing::Test {
 protected:
  ravel::TolvarPrx mainProxy(const std::string& name = kMain) {
    ravel::TolvarPrx proxy;
    communicator.stringToProxy(name, proxy);
    return proxy;
  }
  ravel::FTolvarPrx firstProxy(const std::string& name = kFirst) {
    ravel::FTolvarPrx proxy;
    communicator.stringToProxy(name, proxy);
    return proxy;
  }

  std::shared_ptr<service::LookupService> service = std::make_shared<service::LookupService>();
  InProcessCommunicator communicator{service};
};

TEST_F(InProcess, CarriesEveryOperation) {
  const auto version = service->publish(tableOf(5));
  const auto proxy = mainProxy();

  ravel::ClientConf conf;
  conf.simplingRate = 9;
  service->setConf(conf);
  conf = {};
  EXPECT_EQ(proxy->getConf(conf), 0);
  EXPECT_EQ(conf.simplingRate, 9);

  ravel::CheckReq req;
  ravel::CheckInfo info;
  EXPECT_EQ(proxy->checkChangeAdv(req, info), 0);
  EXPECT_EQ(info.isReset, 1);
  EXPECT_TRUE(info.updateConf);

  ravel::downloadInfo page;
  EXPECT_EQ(proxy->totalDownloadIPInfo(version->timesTamp(), 2, 2, page), 0);
  EXPECT_EQ(page.IPContent.size(), 2u);
  EXPECT_EQ(page.IPContent[0].sequence, 3u);
  EXPECT_EQ(firstProxy()->FirstTotalDownloadIPInfo(0, 0, 4, page), 0);
  EXPECT_EQ(page.IPContent.size(), 4u);

  std::vector<ravel::CodeInfo> codes;
  EXPECT_EQ(proxy->totalDownloadCode(codes), 0);
  ASSERT_EQ(codes.size(), 1u);
  EXPECT_EQ(codes[0].content, "name");

  ravel::ReportCount report;
  report.count = 3;
  EXPECT_EQ(proxy->reportCounts({report}, 1), 0);
  EXPECT_EQ(proxy->reportLines({"line"}, 2), 0);
  EXPECT_EQ(service->usage().counts.at(0).count, 3u);
  EXPECT_EQ(service->usage().lines.at(0), "line");
}

TEST_F(InProcess, RefusesNamesOfTheOtherKind) {
  EXPECT_EQ(
      messageOf([&] { mainProxy(kFirst); }),
      "object name \"Ip.Server.FTolvarObj@tcp\": expected a name that ends in .TolvarObj@tcp");
  EXPECT_EQ(
      messageOf([&] { firstProxy(kMain); }),
      "object name \"Ip.Server.TolvarObj@tcp\": expected a name that ends in .FTolvarObj@tcp");
  EXPECT_EQ(messageOf([&] { mainProxy(""); }),
            "object name \"\": expected a name that ends in .TolvarObj@tcp");
}

TEST_F(InProcess, EveryFailureNamesOperationObjectAndCause) {
  ravel::downloadInfo page;
  std::vector<ravel::CodeInfo> codes;
  EXPECT_EQ(messageOf([&] { mainProxy()->totalDownloadCode(codes); }),
            "totalDownloadCode on Ip.Server.TolvarObj@tcp failed: the service holds no table yet");
  EXPECT_EQ(
      messageOf([&] { firstProxy()->FirstTotalDownloadIPInfo(0, 0, 5, page); }),
      "FirstTotalDownloadIPInfo on Ip.Server.FTolvarObj@tcp failed: the service holds no table "
      "yet");
  service->publish(tableOf(1));
  EXPECT_EQ(
      messageOf([&] { mainProxy()->totalDownloadIPInfo(0, 0, 0, page); }),
      "totalDownloadIPInfo on Ip.Server.TolvarObj@tcp failed: page size 0; expected 1 to 50000");
}

TEST_F(InProcess, TheHookSeesEveryCallAndCanFailIt) {
  std::vector<std::string> calls;
  const auto proxy = mainProxy();
  communicator.setCallHook([&](const std::string& operation, const std::string& object) {
    calls.push_back(operation + " " + object);
    if (operation == "getConf") throw 42;
  });
  ravel::CheckInfo info;
  proxy->selectServer(5)->checkChangeAdv({}, info);
  ravel::ClientConf conf;
  EXPECT_EQ(messageOf([&] { proxy->getConf(conf); }),
            "getConf on Ip.Server.TolvarObj@tcp failed: unknown cause");
  EXPECT_EQ(calls, (std::vector<std::string>{"checkChangeAdv " + kMain, "getConf " + kMain}));
  communicator.setCallHook({});
  EXPECT_EQ(proxy->getConf(conf), 0);
  EXPECT_EQ(calls.size(), 2u);
}

TEST_F(InProcess, ChoosesAmongSeveralServicesByKey) {
  InProcessCommunicator::Services services;
  for (std::int32_t i = 0; i < 3; ++i) {
    services.push_back(std::make_shared<service::LookupService>());
    ravel::ClientConf conf;
    conf.confVersion = 100 + i;
    services.back()->restoreConf(conf);
  }
  communicator.bind(kMain, services);
  const auto proxy = mainProxy();
  for (const std::int64_t key : {0L, 1L, 2L, 3L, 1700000000L}) {
    ravel::ClientConf conf;
    proxy->selectServer(key)->getConf(conf);
    EXPECT_EQ(conf.confVersion, 100 + key % 3) << key;
  }
  ravel::ClientConf conf;
  EXPECT_EQ(proxy->selectServer(-1)->getConf(conf), 0) << "any key chooses a server";
  proxy->getConf(conf);
  EXPECT_EQ(conf.confVersion, 100);
}

TEST_F(InProcess, BindRefusesWhatCannotServe) {
  EXPECT_EQ(messageOf([&] { communicator.bind("x", {service}); }),
            "object name \"x\": expected a name that ends in .TolvarObj@tcp or .FTolvarObj@tcp");
  EXPECT_EQ(messageOf([&] { communicator.bind(kMain, {}); }),
            "object name \"Ip.Server.TolvarObj@tcp\": no service to bind it to");
  EXPECT_EQ(messageOf([&] { communicator.bind(kMain, {nullptr}); }),
            "object name \"Ip.Server.TolvarObj@tcp\": a service to bind it to is null");
}

TEST(InProcessNames, ResolveOnlyWhenBound) {
  InProcessCommunicator communicator;
  ravel::TolvarPrx proxy;
  EXPECT_EQ(messageOf([&] { communicator.stringToProxy(kMain, proxy); }),
            "object name \"Ip.Server.TolvarObj@tcp\": no service is bound to it");
  communicator.bind(kMain, {std::make_shared<service::LookupService>()});
  communicator.stringToProxy(kMain, proxy);
  EXPECT_NE(proxy, nullptr);
}

TEST(InProcessNames, ProxiesOutliveTheCommunicatorAndTheCallersService) {
  ravel::TolvarPrx proxy;
  {
    InProcessCommunicator communicator(std::make_shared<service::LookupService>());
    communicator.stringToProxy(kMain, proxy);
  }
  ravel::ClientConf conf;
  EXPECT_EQ(proxy->getConf(conf), 0);
}

TEST_F(InProcess, ServesManyThreadsWhileTablesAndHooksChange) {
  service->publish(tableOf(100));
  std::atomic<bool> isOver{false};
  std::atomic<int> hooked{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 3; ++i) {
    clients.emplace_back([&, i] {
      const auto proxy = mainProxy();
      const auto first = firstProxy();
      do {
        ravel::downloadInfo page;
        first->selectServer(i)->FirstTotalDownloadIPInfo(0, 0, 1000, page);
        EXPECT_EQ(page.IPContent.size(), page.lowMaxIndex);
        ravel::CheckInfo info;
        proxy->selectServer(i)->checkChangeAdv({}, info);
        proxy->reportLines({"line"}, 0);
      } while (!isOver);
    });
  }
  for (std::uint32_t i = 0; i < 50; ++i) {
    service->publish(tableOf(100 + i));
    communicator.setCallHook([&](const std::string&, const std::string&) { ++hooked; });
    communicator.bind(kMain, {service});
  }
  // The last hook stays, so it is called sooner or later.
  while (hooked == 0) std::this_thread::yield();
  isOver = true;
  for (std::thread& client : clients) client.join();
}

}  // namespace
}  // namespace tolvar
