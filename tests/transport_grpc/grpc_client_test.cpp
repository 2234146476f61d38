#include <gmock/gmock.h>

#include <thread>

#include "platform/exception.h"
#include "report/client_report.h"
#include "tests/transport_grpc/scripted_server.h"
#include "tests/transport_grpc/test_ports.h"
#include "tests/transport_grpc/test_tables.h"
#include "tools/tolvard/server/grpc_server.h"
#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/page_codec.h"

namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar::GrpcServer;
using tolvar_test::describe;
using tolvar_test::loopback;
using tolvar_test::ScriptedServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
constexpr const char* kFast = "Test.Server.FTolvarObj@tcp";

GrpcOptions optionsFor(const std::string& address) {
  GrpcOptions options;
  options.endpoints = {{kMain, {address}}, {kFast, {address}}};
  return options;
}

template <class Call>
std::string failureOf(Call call) {
  try {
    call();
  } catch (const qel::ZU_Exception& error) {
    return error.what();
  }
  return "no failure";
}

/// A real server and a client of it.
class GrpcClient : public testing::Test {
 protected:
  void serve(std::size_t ranges) {
    service = tolvar_test::makeService(ranges);
    tolvar::GrpcServerOptions serving;
    serving.listen = {"127.0.0.1:0"};
    server = std::make_unique<GrpcServer>(service, serving);
    connect(loopback(server->ports()[0]));
  }

  void connect(const std::string& address) { connect(optionsFor(address)); }

  void connect(const GrpcOptions& options) {
    communicator = std::make_unique<GrpcCommunicator>(options);
    communicator->stringToProxy(kMain, main);
    communicator->stringToProxy(kFast, fast);
  }

  std::shared_ptr<tolvar::service::LookupService> service;
  std::unique_ptr<GrpcServer> server;
  std::unique_ptr<GrpcCommunicator> communicator;
  ravel::TolvarPrx main;
  ravel::FTolvarPrx fast;
};

TEST_F(GrpcClient, DownloadsTheWholeTablePageByPage) {
  serve(120001);
  for (const bool first : {true, false}) {
    std::vector<ravel::IPProperty> gathered;
    std::uint64_t cursor = 0;
    for (std::uint64_t end = 1; cursor < end;) {
      ravel::downloadInfo page;
      const auto high = static_cast<std::uint32_t>(cursor >> 32);
      const auto low = static_cast<std::uint32_t>(cursor);
      if (first)
        fast->selectServer(1)->FirstTotalDownloadIPInfo(high, low, 50000, page);
      else
        main->selectServer(1)->totalDownloadIPInfo(high, low, 50000, page);
      ASSERT_FALSE(page.IPContent.empty());
      EXPECT_EQ(page.isdownloadReset, cursor == 0 ? 1 : 0);
      gathered.insert(gathered.end(), page.IPContent.begin(), page.IPContent.end());
      end = std::uint64_t{page.highMaxIndex} << 32 | page.lowMaxIndex;
      cursor = std::uint64_t{gathered.back().timesTamp} << 32 | gathered.back().sequence;
    }
    EXPECT_EQ(describe(gathered), describe(service->current()->ranges()));
  }
}

TEST_F(GrpcClient, CodesConfChecksAndReportsArrive) {
  serve(10);
  ravel::ClientConf wanted;
  wanted.statisOpen = true;
  wanted.simpleLogCitys = {"Lisbon"};
  service->setConf(wanted);

  std::vector<ravel::CodeInfo> codes;
  EXPECT_EQ(main->totalDownloadCode(codes), 0);
  ASSERT_EQ(codes.size(), service->current()->codes().size());
  EXPECT_EQ(codes.back().content, service->current()->codes().back().content);

  ravel::ClientConf conf;
  EXPECT_EQ(main->getConf(conf), 0);
  EXPECT_TRUE(conf.statisOpen);
  EXPECT_EQ(conf.simpleLogCitys, wanted.simpleLogCitys);

  ravel::CheckReq req;
  req.contentMd5 = "0";
  ravel::CheckInfo info;
  main->checkChangeAdv(req, info);
  EXPECT_EQ(info.isReset, 1);
  EXPECT_EQ(info.isNetFlow, 0);
  req.contentMd5 = service->current()->digest();
  req.confVersion = conf.confVersion;
  main->checkChangeAdv(req, info);
  EXPECT_EQ(info.isReset, 0);
  EXPECT_FALSE(info.updateConf);

  ravel::ReportCount count;
  count.info.name = "Portugal";
  count.count = 3;
  main->reportCounts({count}, 2);
  main->reportLines({"a line"}, 1);
  const auto usage = service->usage();
  ASSERT_EQ(usage.counts.size(), 1u);
  EXPECT_EQ(usage.counts[0].info.name, "Portugal");
  EXPECT_EQ(usage.counts[0].count, 3u);
  EXPECT_EQ(usage.lines.size(), 1u);
  EXPECT_EQ(usage.droppedHits, 2u);
  EXPECT_EQ(usage.droppedLines, 1u);
}

TEST_F(GrpcClient, PagesOfAnySizeAndCursorsOfOtherVersions) {
  serve(60000);
  const std::uint32_t stamp = service->current()->timesTamp();
  ravel::downloadInfo page;
  main->totalDownloadIPInfo(0, 0, 4294967295u, page);
  EXPECT_EQ(page.IPContent.size(), 50000u);
  main->totalDownloadIPInfo(stamp, 17, 3, page);
  ASSERT_EQ(page.IPContent.size(), 3u);
  EXPECT_EQ(page.IPContent[0].sequence, 18u);
  EXPECT_EQ(page.isdownloadReset, 0);
  main->totalDownloadIPInfo(stamp, 60000, 50000, page);
  EXPECT_TRUE(page.IPContent.empty());
  for (const auto& [high, low] : {std::pair{stamp - 1, 5u}, std::pair{stamp + 1, 5u},
                                  std::pair{stamp, 60001u}, std::pair{0u, 1u}}) {
    main->totalDownloadIPInfo(high, low, 50000, page);
    EXPECT_EQ(page.isdownloadReset, 1);
    EXPECT_EQ(page.IPContent.front().sequence, 1u);
  }
}

TEST_F(GrpcClient, PageOfSizeZeroIsAFailureThatSaysSo) {
  serve(10);
  ravel::downloadInfo page;
  EXPECT_THAT(failureOf([&] { main->totalDownloadIPInfo(0, 0, 0, page); }),
              AllOf(StartsWith("totalDownloadIPInfo at 127.0.0.1:"), HasSubstr("INVALID_ARGUMENT"),
                    HasSubstr("size")));
}

TEST_F(GrpcClient, ServiceWithoutATableSaysSo) {
  service = std::make_shared<tolvar::service::LookupService>();
  tolvar::GrpcServerOptions serving;
  serving.listen = {"127.0.0.1:0"};
  server = std::make_unique<GrpcServer>(service, serving);
  connect(loopback(server->ports()[0]));
  std::vector<ravel::CodeInfo> codes;
  EXPECT_THAT(failureOf([&] { main->totalDownloadCode(codes); }),
              AllOf(HasSubstr("FAILED_PRECONDITION"), HasSubstr("holds no table yet")));
}

TEST_F(GrpcClient, RefusedConnectionFailsAtTheDeadlineWithItsCause) {
  const tolvar_test::DeadPort dead;
  GrpcOptions options = optionsFor(dead.address());
  options.checkDeadline = milliseconds(300);
  connect(options);
  const auto begin = std::chrono::steady_clock::now();
  ravel::ClientConf conf;
  const std::string failure = failureOf([&] { main->getConf(conf); });
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_THAT(failure, AllOf(StartsWith("getConf at " + dead.address() + ": UNAVAILABLE after "),
                             HasSubstr("Connection refused")));
  EXPECT_GE(taken, milliseconds(290));
  EXPECT_LT(taken, milliseconds(1500));
}

TEST_F(GrpcClient, SilentServerFailsAtTheDeadline) {
  const tolvar_test::DeadPort silent(true);
  GrpcOptions options = optionsFor(silent.address());
  options.checkDeadline = milliseconds(300);
  connect(options);
  ravel::ClientConf conf;
  EXPECT_THAT(failureOf([&] { main->getConf(conf); }),
              AllOf(StartsWith("getConf at " + silent.address() + ": DEADLINE_EXCEEDED after "),
                    HasSubstr("no connection")));
}

TEST_F(GrpcClient, SlowAnswerFailsAtTheDeadline) {
  tolvar_test::Barrier barrier;
  ScriptedServer::Script script;
  script.getConf = [&](auto&, auto&) {
    barrier.pass();
    return grpc::Status::OK;
  };
  ScriptedServer scripted(script);
  GrpcOptions options = optionsFor(scripted.address());
  options.checkDeadline = milliseconds(300);
  connect(options);
  ravel::ClientConf conf;
  EXPECT_THAT(failureOf([&] { main->getConf(conf); }),
              AllOf(HasSubstr("DEADLINE_EXCEEDED"), HasSubstr("did not answer in time")));
  barrier.open();
}

TEST_F(GrpcClient, CallWaitsForAServerThatStartsWithinTheDeadline) {
  auto port = std::make_unique<tolvar_test::DeadPort>();
  const int number = port->port();
  connect(loopback(number));
  ravel::ClientConf conf;
  std::string failure = "not called";
  std::thread caller([&] { failure = failureOf([&] { main->getConf(conf); }); });
  port.reset();
  ScriptedServer scripted({}, number);
  caller.join();
  EXPECT_EQ(failure, "no failure");
}

TEST_F(GrpcClient, RepeatableCallsSurviveARestartAndReportsAreSentOnce) {
  int reports = 0;
  ScriptedServer::Script script;
  script.reportCounts = [&](const auto&) {
    ++reports;
    return grpc::Status(grpc::StatusCode::UNAVAILABLE, "going down");
  };
  int checks = 0;
  script.check = [&](const auto&, auto& answer) {
    if (++checks == 1) return grpc::Status(grpc::StatusCode::UNAVAILABLE, "going down");
    answer.set_is_reset(5);
    return grpc::Status::OK;
  };
  ScriptedServer scripted(script);
  connect(scripted.address());
  ravel::CheckInfo info;
  main->checkChangeAdv({}, info);
  EXPECT_EQ(info.isReset, 5);
  EXPECT_EQ(checks, 2);
  EXPECT_THAT(failureOf([&] { main->reportCounts({}, 0); }), HasSubstr("going down"));
  EXPECT_EQ(reports, 1);
}

TEST_F(GrpcClient, ErrorsOfTheServiceKeepStatusAndText) {
  ScriptedServer::Script script;
  script.check = [](const auto&, auto&) {
    return grpc::Status(grpc::StatusCode::PERMISSION_DENIED, "not for you");
  };
  ScriptedServer scripted(script);
  connect(scripted.address());
  ravel::CheckInfo info;
  EXPECT_THAT(failureOf([&] { main->checkChangeAdv({}, info); }),
              AllOf(StartsWith("checkChangeAdv at " + scripted.address()),
                    HasSubstr("PERMISSION_DENIED"), HasSubstr("not for you")));
}

TEST_F(GrpcClient, OversizedAnswerIsAFailure) {
  ScriptedServer::Script script;
  script.page = [](const auto&, auto& page) {
    for (int i = 0; i < 3000000; ++i) page.add_place(-1);
    return grpc::Status::OK;
  };
  ScriptedServer scripted(script);
  connect(scripted.address());
  ravel::downloadInfo page;
  EXPECT_THAT(failureOf([&] { main->totalDownloadIPInfo(0, 0, 50000, page); }),
              AllOf(HasSubstr("RESOURCE_EXHAUSTED"), HasSubstr("larger than max")));
}

TEST_F(GrpcClient, OversizedRequestIsAFailure) {
  serve(1);
  const std::vector<std::string> lines(3000, std::string(4000, 'x'));
  EXPECT_THAT(failureOf([&] { main->reportLines(lines, 0); }), HasSubstr("RESOURCE_EXHAUSTED"));
}

TEST_F(GrpcClient, WhatCannotBeSentIsAFailureLikeAnyOther) {
  serve(1);
  const std::string endpoint = loopback(server->ports()[0]);
  ravel::CheckReq req;
  req.contentMd5 = std::string(65, 'f');
  ravel::CheckInfo info;
  EXPECT_THAT(failureOf([&] { main->checkChangeAdv(req, info); }),
              testing::MatchesRegex("checkChangeAdv at " + endpoint +
                                    ": INVALID_ARGUMENT after [0-9]+ ms: the request cannot be "
                                    "sent: bytes of a digest: 65, at most 64 is allowed"));
  ravel::ReportCount unknown;
  unknown.info.type = static_cast<ravel::ReportType>(9);
  EXPECT_THAT(failureOf([&] { main->selectServer(1)->reportCounts({unknown}, 0); }),
              AllOf(StartsWith("reportCounts at " + endpoint + ": INVALID_ARGUMENT after "),
                    HasSubstr("the request cannot be sent: report type 9")));
}

TEST_F(GrpcClient, LyingAnswersAreFailures) {
  ScriptedServer::Script script;
  script.page = [](const auto&, auto& page) {
    page.set_records(4);
    page.add_sequence_delta(1);
    return grpc::Status::OK;
  };
  script.codes = [](auto& codes) {
    codes.set_entries(1);
    return grpc::Status::OK;
  };
  script.check = [](const auto&, auto& answer) {
    answer.set_is_reset(256);
    return grpc::Status::OK;
  };
  ScriptedServer scripted(script);
  connect(scripted.address());
  ravel::downloadInfo page;
  EXPECT_THAT(failureOf([&] { main->totalDownloadIPInfo(0, 0, 50000, page); }),
              AllOf(HasSubstr("DATA_LOSS"), HasSubstr("has 1 values for 4 records")));
  EXPECT_THAT(failureOf([&] { fast->FirstTotalDownloadIPInfo(0, 0, 50000, page); }),
              StartsWith("FirstTotalDownloadIPInfo at " + scripted.address() + ": DATA_LOSS"));
  std::vector<ravel::CodeInfo> codes;
  EXPECT_THAT(failureOf([&] { main->totalDownloadCode(codes); }),
              HasSubstr("announce 1 entries and hold 0"));
  ravel::CheckInfo info;
  EXPECT_THAT(failureOf([&] { main->checkChangeAdv({}, info); }), HasSubstr("is_reset 256"));
}

TEST_F(GrpcClient, ContextsTravelBothWays) {
  ScriptedServer::Script script;
  script.getConf = [](grpc::ServerContext& context, auto&) {
    const auto& metadata = context.client_metadata();
    const auto found = metadata.find("tolvar-ctx-host-bin");
    if (found == metadata.end()) return grpc::Status(grpc::StatusCode::INTERNAL, "no context");
    context.AddTrailingMetadata("tolvar-ctx-answer-bin",
                                "to " + std::string(found->second.data(), found->second.size()));
    return grpc::Status::OK;
  };
  ScriptedServer scripted(script);
  connect(scripted.address());
  ravel::ClientConf conf;
  ravel::CallContext response;
  main->getConf(conf, {{"host", "a\n\xff"}}, &response);
  EXPECT_EQ(response, (ravel::CallContext{{"answer", "to a\n\xff"}}));
  EXPECT_THAT(failureOf([&] {
                main->getConf(conf, {{"Bad Key", ""}}, nullptr);
              }),
              AllOf(StartsWith("getConf at " + scripted.address() + ": INVALID_ARGUMENT after "),
                    HasSubstr("context key \"Bad Key\"")));
}

TEST_F(GrpcClient, ProxiesOutliveTheirCommunicator) {
  serve(10);
  const ravel::TolvarPrx selected = main->selectServer(3);
  communicator.reset();
  ravel::ClientConf conf;
  EXPECT_THAT(failureOf([&] { selected->getConf(conf); }),
              AllOf(StartsWith("getConf at " + loopback(server->ports()[0]) + ": CANCELLED after "),
                    HasSubstr("the communicator has ended")));
}

TEST(GrpcCommunicator, NamesWithoutEndpointsAreRefused) {
  GrpcCommunicator communicator(optionsFor("127.0.0.1:1"));
  ravel::TolvarPrx main;
  ravel::FTolvarPrx fast;
  EXPECT_THAT(failureOf([&] { communicator.stringToProxy("Other.TolvarObj@tcp", main); }),
              AllOf(HasSubstr("no endpoints"), HasSubstr("\"Other.TolvarObj@tcp\"")));
  EXPECT_THAT(failureOf([&] { communicator.stringToProxy(kFast, main); }),
              HasSubstr("is one of the other object"));
  EXPECT_THAT(failureOf([&] { communicator.stringToProxy(kMain, fast); }),
              HasSubstr("is one of the other object"));
}

TEST(GrpcCommunicator, OptionsThatCannotWorkAreRefused) {
  const auto refusal = [](auto change) {
    GrpcOptions options = optionsFor("127.0.0.1:1");
    change(options);
    return failureOf([&] { GrpcCommunicator communicator(options); });
  };
  EXPECT_EQ(refusal([](GrpcOptions&) {}), "no failure");
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.endpoints[kMain].clear(); }), HasSubstr(kMain));
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.endpoints[kMain] = {""}; }), HasSubstr(kMain));
  EXPECT_THAT(
      refusal([](GrpcOptions& o) { o.endpoints[kMain] = {"unix:/" + std::string(107, 'x')}; }),
      HasSubstr("has at most 107 bytes"));
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.pageDeadline = milliseconds(0); }),
              HasSubstr("deadline"));
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.checkDeadline = milliseconds::max(); }),
              HasSubstr("deadline"));
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.maxReceiveBytes = 0; }), HasSubstr("receive limit"));
  EXPECT_THAT(refusal([](GrpcOptions& o) { o.authority = "x"; }), HasSubstr("authority"));
  EXPECT_THAT(refusal([](GrpcOptions& o) {
                o.tls.emplace();
                o.tls->caFile = "/nowhere/ca.pem";
              }),
              AllOf(HasSubstr("/nowhere/ca.pem"), HasSubstr("No such file")));
}

}  // namespace
