#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "platform/exception.h"
#include "tests/transport_grpc/scripted_server.h"
#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/page_ahead.h"
#include "transport/grpc/page_request.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar_test::ScriptedServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
constexpr std::uint32_t kRecords = 9;

/// A service with a table of kRecords ranges, cursors (0, 1) to (0, kRecords), that keeps the
/// cursors it was asked for. Asks for `held` wait for the barrier.
class PageAhead : public testing::Test {
 protected:
  PageAhead() : server(script()) { connect(milliseconds(30000)); }
  ~PageAhead() override { barrier.open(); }

  void connect(milliseconds pageDeadline) {
    GrpcOptions options;
    options.endpoints = {{kMain, {server.address()}}};
    options.pageDeadline = pageDeadline;
    communicator = std::make_unique<GrpcCommunicator>(options);
    communicator->stringToProxy(kMain, proxy);
  }

  ScriptedServer::Script script() {
    ScriptedServer::Script script;
    script.page = [this](const tolvar::v1::PageRequest& request, tolvar::v1::Page& page) {
      {
        const std::lock_guard lock(mutex);
        asked.push_back(request.low());
      }
      if (request.low() == held) barrier.pass();
      if (request.low() == failing.exchange(kNone))
        return grpc::Status(grpc::StatusCode::INTERNAL, "a fault that went by");
      page.set_low_max_index(kRecords);
      page.set_is_download_reset(request.low() == 0 ? 1 : 0);
      const std::uint32_t count = std::min(request.size(), kRecords - request.low());
      page.set_records(count);
      for (std::uint32_t i = 0; i < count; ++i) {
        page.add_sequence_delta(i == 0 ? request.low() + 1 : 1);
        page.add_start_ip_delta(1);
      }
      if (request.low() == lying) page.add_apn(1);
      return grpc::Status::OK;
    };
    return script;
  }

  /// The sequences of the page behind `low`.
  std::vector<std::uint32_t> page(std::uint32_t low, std::uint32_t size = 2,
                                  const ravel::CallContext& context = {}) {
    ravel::downloadInfo info;
    proxy->totalDownloadIPInfo(0, low, size, info, context, nullptr);
    std::vector<std::uint32_t> sequences;
    for (const ravel::IPProperty& range : info.IPContent) sequences.push_back(range.sequence);
    return sequences;
  }

  std::string failure(std::uint32_t low) {
    try {
      page(low);
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "no failure";
  }

  /// What the service was asked for, once no call is under way any more.
  std::vector<std::uint32_t> askedInAll() {
    proxy.reset();
    communicator.reset();
    const std::lock_guard lock(mutex);
    return asked;
  }

  static constexpr std::uint32_t kNone = 1000;

  std::mutex mutex;
  std::vector<std::uint32_t> asked;  ///< guarded by mutex
  std::atomic<std::uint32_t> held{kNone};
  std::atomic<std::uint32_t> failing{kNone};  ///< the next ask for it, once
  std::atomic<std::uint32_t> lying{kNone};
  tolvar_test::Barrier barrier;
  ScriptedServer server;
  std::unique_ptr<GrpcCommunicator> communicator;
  ravel::TolvarPrx proxy;
};

TEST_F(PageAhead, ADownloadAsksForEveryPageOnce) {
  std::vector<std::uint32_t> gathered;
  while (gathered.size() < kRecords) {
    proxy = proxy->selectServer(5);  // as the client does for every page
    const auto more = page(gathered.empty() ? 0 : gathered.back());
    gathered.insert(gathered.end(), more.begin(), more.end());
  }
  EXPECT_THAT(gathered, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_THAT(askedInAll(), ElementsAre(0, 2, 4, 6, 8));
}

TEST_F(PageAhead, TheNextPageIsUnderWayBeforeItIsAskedFor) {
  held = 2;
  EXPECT_THAT(page(0), ElementsAre(1, 2));
  barrier.awaitArrivals(1);
  barrier.open();
  EXPECT_THAT(page(2), ElementsAre(3, 4));
}

TEST_F(PageAhead, AnotherQuestionGetsItsOwnAnswer) {
  EXPECT_THAT(page(0), ElementsAre(1, 2));
  EXPECT_THAT(page(4), ElementsAre(5, 6));
  EXPECT_THAT(page(6, 3), ElementsAre(7, 8, 9));
  EXPECT_THAT(page(2), ElementsAre(3, 4));
}

TEST_F(PageAhead, AThreadThatEndedForWantOfWorkStartsAgain) {
  tolvar::CallRegistry registry;
  tolvar::Endpoint endpoint(server.address(),
                            std::make_shared<tolvar::ClientCredentials>(std::nullopt),
                            std::make_shared<tolvar::GrpcOptions>());
  tolvar::PageAhead ahead(registry, registry.newFamily(), tolvar::kDownloadPageMethod,
                          milliseconds(0));
  EXPECT_EQ(ahead.threadStarts(), 0u);
  // Some pages are read by the thread, some by this one, and some are asked for while it ends.
  // How often it ends depends on who comes first, so this goes on until it has started again often.
  constexpr std::uint32_t kPages = 400;
  for (std::uint32_t i = 0; i < kPages || ahead.threadStarts() <= 10; ++i) {
    const std::uint32_t low = i % 4 * 2;
    const tolvar::wire::PageQuery query{0, low, 2};
    ahead.ask(endpoint, query, milliseconds(30000));
    const auto bytes =
        ahead.take(endpoint, query, std::chrono::system_clock::now() + std::chrono::seconds(30));
    ASSERT_TRUE(bytes.has_value());
    ravel::downloadInfo info;
    tolvar::wire::decodePage(*bytes, query, info);
    ASSERT_EQ(info.IPContent.size(), 2u);
    EXPECT_EQ(info.IPContent[0].sequence, low + 1);
    EXPECT_EQ(info.IPContent[1].sequence, low + 2);
  }
}

TEST_F(PageAhead, WhatFailedAheadIsAskedForAgain) {
  failing = 2;
  EXPECT_THAT(page(0), ElementsAre(1, 2));
  EXPECT_THAT(page(2), ElementsAre(3, 4));
  EXPECT_EQ(failing, kNone);
}

TEST_F(PageAhead, APageThatLiesFailsWhenItIsAskedForAndNotBefore) {
  lying = 2;
  EXPECT_THAT(page(0), ElementsAre(1, 2));
  EXPECT_THAT(failure(2), HasSubstr("DATA_LOSS"));
  lying = kNone;
  EXPECT_THAT(page(2), ElementsAre(3, 4));
}

TEST_F(PageAhead, CallsWithAContextGoToTheServiceOneByOne) {
  EXPECT_THAT(page(0, 2, {{"host", "a"}}), ElementsAre(1, 2));
  EXPECT_THAT(page(2, 2, {{"host", "a"}}), ElementsAre(3, 4));
  EXPECT_THAT(askedInAll(), ElementsAre(0, 2));
}

TEST_F(PageAhead, AWaitForItIsCancelledWithTheOtherCalls) {
  held = 2;
  page(0);
  barrier.awaitArrivals(1);
  for (const bool wholeCommunicator : {false, true}) {
    auto waiting = std::async(std::launch::async, [&] {
      const std::string text = failure(2);
      return std::pair(text, steady_clock::now());
    });
    // Nothing tells from outside that the call waits; cancel until it ends.
    auto begin = steady_clock::now();
    do {
      begin = steady_clock::now();
      if (wholeCommunicator)
        communicator->end();
      else
        proxy->cancelCalls();
    } while (waiting.wait_for(milliseconds(200)) != std::future_status::ready);
    const auto [text, ended] = waiting.get();
    EXPECT_TRUE(text.find("CANCELLED") != std::string::npos ||
                text.find("the communicator has ended") != std::string::npos)
        << text;
    EXPECT_LT(ended - begin, milliseconds(200));
  }
}

TEST_F(PageAhead, AProxyThatGoesTakesItAlong) {
  held = 2;
  page(0);
  barrier.awaitArrivals(1);
  const auto begin = steady_clock::now();
  proxy.reset();
  EXPECT_LT(steady_clock::now() - begin, milliseconds(200));
}

TEST_F(PageAhead, AWaitForItEndsAtTheDeadline) {
  connect(milliseconds(300));
  held = 2;
  page(0);
  barrier.awaitArrivals(1);
  const auto begin = steady_clock::now();
  EXPECT_THAT(failure(2), HasSubstr("DEADLINE_EXCEEDED"));
  EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
}

}  // namespace
