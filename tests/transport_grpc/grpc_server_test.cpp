#include "tools/tolvard/server/grpc_server.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>

#include <future>
#include <mutex>
#include <utility>

#include "platform/exception.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_dir.h"
#include "tests/transport_grpc/test_ports.h"
#include "tests/transport_grpc/test_tables.h"
#include "tolvar.grpc.pb.h"
#include "tools/tolvard/server/download_gate.h"
#include "transport/grpc/grpc_communicator.h"

namespace {

using testing::HasSubstr;
using tolvar::GrpcServer;
using tolvar::GrpcServerOptions;
using tolvar_test::loopback;
namespace v1 = tolvar::v1;

GrpcServerOptions onLoopback() {
  GrpcServerOptions options;
  options.listen = {"127.0.0.1:0"};
  return options;
}

std::shared_ptr<grpc::Channel> channelTo(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetMaxReceiveMessageSize(tolvar::wire::MAX_RECV_BUFFER);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::shared_ptr<grpc::Channel> channelTo(const GrpcServer& server) {
  return channelTo(loopback(server.ports()[0]));
}

/// Calls with bytes of the test's own, so that anything can be sent.
grpc::Status callRaw(const std::shared_ptr<grpc::Channel>& channel, const std::string& method,
                     const std::string& request, std::string* response = nullptr) {
  grpc::GenericStub stub(channel);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
  const grpc::Slice slice(request);
  const grpc::ByteBuffer bytes(&slice, 1);
  grpc::ByteBuffer answer;
  std::promise<grpc::Status> done;
  stub.UnaryCall(&context, method, {}, &bytes, &answer,
                 [&](grpc::Status status) { done.set_value(std::move(status)); });
  const grpc::Status status = done.get_future().get();
  if (response != nullptr && status.ok()) {
    grpc::Slice all;
    EXPECT_TRUE(answer.DumpToSingleSlice(&all).ok());
    response->assign(reinterpret_cast<const char*>(all.begin()), all.size());
  }
  return status;
}

v1::CheckAnswer check(v1::TolvarObj::Stub& stub, const std::string& digest) {
  grpc::ClientContext context;
  v1::CheckRequest request;
  request.set_content_md5(digest);
  v1::CheckAnswer answer;
  EXPECT_TRUE(stub.CheckChange(&context, request, &answer).ok());
  return answer;
}

grpc::Status page(v1::TolvarObj::Stub& stub, std::uint32_t high, std::uint32_t low,
                  std::uint32_t size, v1::Page& answer) {
  grpc::ClientContext context;
  v1::PageRequest request;
  request.set_high(high);
  request.set_low(low);
  request.set_size(size);
  return stub.DownloadPage(&context, request, &answer);
}

TEST(GrpcServer, BeyondTheDownloadLimitChecksAnswerOverload) {
  tolvar_test::ManualClock clock;
  const auto service = tolvar_test::makeService(60000);
  GrpcServerOptions options = onLoopback();
  options.maxDownloads = 1;
  options.clock = &clock;
  GrpcServer server(service, options);
  v1::TolvarObj::Stub one(channelTo(server));
  v1::TolvarObj::Stub two(channelTo(server));

  EXPECT_EQ(check(one, "0").is_reset(), 1);
  const v1::CheckAnswer refused = check(two, "0");
  EXPECT_EQ(refused.is_net_flow(), 1);
  EXPECT_EQ(refused.is_reset(), 0);
  EXPECT_EQ(check(two, service->current()->digest()).is_net_flow(), 0);  // needs no download

  // Pages go on, those of clients that were refused included.
  v1::Page answer;
  EXPECT_TRUE(page(one, 0, 0, 50000, answer).ok());
  EXPECT_TRUE(page(two, 0, 0, 50000, answer).ok());
  EXPECT_EQ(server.activeDownloads(), 1u);

  EXPECT_TRUE(page(one, service->current()->timesTamp(), 50000, 50000, answer).ok());
  EXPECT_EQ(answer.records(), 10000u);
  EXPECT_EQ(server.activeDownloads(), 0u);
  EXPECT_EQ(check(two, "0").is_reset(), 1);
  EXPECT_EQ(check(one, "0").is_net_flow(), 1);
  clock.advance(tolvar::DownloadGate::kIdleMillis);
  EXPECT_EQ(check(one, "0").is_reset(), 1);
}

TEST(GrpcServer, EveryConnectionOverAUnixSocketTakesADownloadPlace) {
  const tolvar_test::TempDir directory;
  GrpcServerOptions options;
  options.listen = {"unix:" + directory.file("t.sock")};
  options.maxDownloads = 1;
  GrpcServer server(tolvar_test::makeService(10), options);
  EXPECT_EQ(server.ports(), std::vector<int>{1});
  v1::TolvarObj::Stub one(channelTo(options.listen[0]));
  v1::TolvarObj::Stub two(channelTo(options.listen[0]));
  EXPECT_EQ(check(one, "0").is_reset(), 1);
  EXPECT_EQ(check(two, "0").is_net_flow(), 1);
  EXPECT_EQ(check(one, "0").is_reset(), 1);
}

TEST(GrpcServer, PagesOfOtherSizesAreBoundedInMemory) {
  const auto service = tolvar_test::makeService(60000);
  GrpcServerOptions options = onLoopback();
  options.privatePageBytes = 10000;
  GrpcServer server(service, options);
  v1::TolvarObj::Stub stub(channelTo(server));
  v1::Page answer;
  // 1 KB each, which comes back soon after the call: far more calls succeed than fit at once.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  int served = 0;
  while (served < 300 && std::chrono::steady_clock::now() < limit)
    if (page(stub, 0, 0, 50, answer).ok()) ++served;
  EXPECT_EQ(served, 300);
  EXPECT_TRUE(page(stub, 0, 0, 50000, answer).ok());
  const grpc::Status refused = page(stub, 0, 0, 40000, answer);
  EXPECT_EQ(refused.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_THAT(refused.error_message(), HasSubstr("other sizes than 50000"));
}

TEST(GrpcServer, GarbageIsAnsweredWithAnErrorAndServedOn) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  const auto channel = channelTo(server);
  for (const char* method :
       {"GetConf", "CheckChange", "DownloadPage", "DownloadCodes", "ReportCounts", "ReportLines"}) {
    const grpc::Status status =
        callRaw(channel, std::string("/tolvar.v1.TolvarObj/") + method, std::string(1000, '\xff'));
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT) << method;
  }
  EXPECT_EQ(callRaw(channel, "/tolvar.v1.FTolvarObj/FirstDownloadPage", "\x08").error_code(),
            grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(callRaw(channel, "/tolvar.v1.TolvarObj/Nothing", "").error_code(),
            grpc::StatusCode::UNIMPLEMENTED);
  v1::TolvarObj::Stub stub(channel);
  v1::Page answer;
  EXPECT_TRUE(page(stub, 0, 0, 50000, answer).ok());
}

TEST(GrpcServer, BadRequestsAreTheCallersFault) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  v1::TolvarObj::Stub stub(channelTo(server));
  v1::Page answer;
  EXPECT_EQ(page(stub, 0, 0, 0, answer).error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(page(stub, 0xffffffff, 0xffffffff, 5, answer).error_code(),
            grpc::StatusCode::INVALID_ARGUMENT);
  grpc::ClientContext context;
  v1::ReportCountsRequest counts;
  counts.add_counts()->set_type(static_cast<v1::ReportType>(9));
  v1::ReportAnswer done;
  const grpc::Status status = stub.ReportCounts(&context, counts, &done);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_THAT(status.error_message(), HasSubstr("report type 9"));
}

TEST(GrpcServer, OversizedRequestsAreRefused) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  const grpc::Status status = callRaw(channelTo(server), "/tolvar.v1.TolvarObj/ReportLines",
                                      std::string(tolvar::wire::kMaxRequestBytes + 1, 'x'));
  EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
}

TEST(GrpcServer, CompressedRequestsAreRefused) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  v1::TolvarObj::Stub stub(channelTo(server));
  for (const auto algorithm : {GRPC_COMPRESS_GZIP, GRPC_COMPRESS_DEFLATE}) {
    grpc::ClientContext context;
    context.set_compression_algorithm(algorithm);
    v1::ReportLinesRequest request;
    request.add_lines(std::string(8000, 'x'));
    v1::ReportAnswer answer;
    const grpc::Status status = stub.ReportLines(&context, request, &answer);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_THAT(status.error_message(), HasSubstr("is disabled"));
  }
}

TEST(GrpcServer, LetsGoOfAnOldVersionWithoutACall) {
  const auto service = tolvar_test::makeService(10);
  GrpcServer server(service, onLoopback());
  server.prepare(service->current());
  server.dropOldVersions();
  const std::weak_ptr<const tolvar::service::TableVersion> old = service->current();
  server.prepare(service->publish({tolvar_test::makeRanges(11), tolvar_test::makeCodes()}));
  EXPECT_FALSE(old.expired());  // a call that began before may still want it
  server.dropOldVersions();
  EXPECT_TRUE(old.expired());
}

TEST(GrpcServer, HealthAndReflectionAnswer) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  const auto channel = channelTo(server);
  constexpr const char* kCheck = "/grpc.health.v1.Health/Check";
  const std::string name = "tolvar.v1.TolvarObj";
  const std::string request = "\x0a" + std::string(1, static_cast<char>(name.size())) + name;
  std::string answer;
  ASSERT_TRUE(callRaw(channel, kCheck, "", &answer).ok());
  EXPECT_EQ(answer, "\x08\x01");  // SERVING
  ASSERT_TRUE(callRaw(channel, kCheck, request, &answer).ok());
  EXPECT_EQ(answer, "\x08\x01");
  server.setServing(false);
  ASSERT_TRUE(callRaw(channel, kCheck, request, &answer).ok());
  EXPECT_EQ(answer, "\x08\x02");  // NOT_SERVING

  // One request, "list services", as a stream of one message.
  ASSERT_TRUE(callRaw(channel, "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo",
                      "\x3a\x01*", &answer)
                  .ok());
  EXPECT_THAT(answer, HasSubstr("tolvar.v1.TolvarObj"));
  EXPECT_THAT(answer, HasSubstr("tolvar.v1.FTolvarObj"));
}

TEST(GrpcServer, APortInUseIsAnErrorThatNamesIt) {
  const tolvar_test::DeadPort taken(true);
  GrpcServerOptions options = onLoopback();
  options.listen = {taken.address()};
  try {
    GrpcServer server(tolvar_test::makeService(1), options);
    FAIL() << "the port is taken";
  } catch (const qel::ZU_Exception& error) {
    EXPECT_THAT(error.what(), HasSubstr(taken.address()));
  }
}

TEST(GrpcServer, TwoServersCannotShareAPort) {
  GrpcServer first(tolvar_test::makeService(1), onLoopback());
  GrpcServerOptions options = onLoopback();
  options.listen = {loopback(first.ports()[0])};
  EXPECT_THROW(GrpcServer(tolvar_test::makeService(1), options), qel::ZU_Exception);
}

TEST(GrpcServer, ServesOneObjectAloneWhenToldTo) {
  GrpcServerOptions options = onLoopback();
  options.serveMain = false;
  GrpcServer server(tolvar_test::makeService(10), options);
  const auto channel = channelTo(server);
  EXPECT_EQ(callRaw(channel, "/tolvar.v1.TolvarObj/GetConf", "").error_code(),
            grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_TRUE(callRaw(channel, "/tolvar.v1.FTolvarObj/FirstDownloadPage", "\x18\x05").ok());
}

TEST(GrpcServer, TellsItsObserverOfEveryCall) {
  std::mutex mutex;
  std::vector<std::string> calls;
  GrpcServerOptions options = onLoopback();
  options.onCall = [&](const tolvar::GrpcCallRecord& call) {
    const std::lock_guard lock(mutex);
    EXPECT_THAT(call.peer, HasSubstr("127.0.0.1"));
    EXPECT_GE(call.micros, 0);
    EXPECT_EQ(call.answerBytes > 0, call.operation == "DownloadPage" && call.status == "OK");
    calls.push_back(call.operation + " " + call.status);
  };
  GrpcServer server(tolvar_test::makeService(10), options);
  v1::TolvarObj::Stub stub(channelTo(server));
  v1::Page answer;
  check(stub, "0");
  page(stub, 0, 0, 50000, answer);
  page(stub, 0, 0, 0, answer);
  server.shutdown(std::chrono::seconds(5));
  EXPECT_EQ(calls, (std::vector<std::string>{"CheckChange OK", "DownloadPage OK",
                                             "DownloadPage INVALID_ARGUMENT"}));
}

/// A watch of the server's health, which goes on until somebody ends it.
class HealthWatch final : public grpc::ClientBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> {
 public:
  explicit HealthWatch(const std::shared_ptr<grpc::Channel>& channel) : _stub(channel) {
    _stub.PrepareBidiStreamingCall(&_context, "/grpc.health.v1.Health/Watch", {}, this);
    StartCall();
    StartWriteLast(&_request, {});
    StartRead(&_answer);
  }

  /// Blocks until the first answer has come; false when the call failed.
  bool awaitFirst() { return _first.get_future().get(); }
  grpc::Status awaitEnd() { return _end.get_future().get(); }

  void OnReadDone(bool ok) override {
    if (!std::exchange(_hasRead, true)) _first.set_value(ok);
    if (ok) StartRead(&_answer);
  }
  void OnDone(const grpc::Status& status) override { _end.set_value(status); }

 private:
  grpc::GenericStub _stub;
  grpc::ClientContext _context;
  const grpc::Slice _empty;
  grpc::ByteBuffer _request{&_empty, 1};
  grpc::ByteBuffer _answer;
  bool _hasRead = false;
  std::promise<bool> _first;
  std::promise<grpc::Status> _end;
};

TEST(GrpcServer, ShutdownCancelsWhatOutlastsItsGraceAndMayBeRepeated) {
  GrpcServer server(tolvar_test::makeService(10), onLoopback());
  const auto channel = channelTo(server);
  HealthWatch watch(channel);
  ASSERT_TRUE(watch.awaitFirst());
  const auto begin = std::chrono::steady_clock::now();
  server.shutdown(std::chrono::milliseconds(300));
  server.shutdown(std::chrono::milliseconds(300));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_FALSE(watch.awaitEnd().ok());
  EXPECT_EQ(callRaw(channel, "/tolvar.v1.TolvarObj/GetConf", "").error_code(),
            grpc::StatusCode::UNAVAILABLE);
}

TEST(GrpcServer, ANewVersionIsServedAtOnceAndResetsOldCursors) {
  const auto service = tolvar_test::makeService(60000);
  GrpcServer server(service, onLoopback());
  server.prepare(service->current());
  v1::TolvarObj::Stub stub(channelTo(server));
  v1::Page answer;
  ASSERT_TRUE(page(stub, 0, 0, 50000, answer).ok());
  const std::uint32_t old = service->current()->timesTamp();
  service->publish({tolvar_test::makeRanges(7), tolvar_test::makeCodes()});
  ASSERT_TRUE(page(stub, old, 50000, 50000, answer).ok());
  EXPECT_EQ(answer.is_download_reset(), 1);
  EXPECT_EQ(answer.records(), 7u);
}

}  // namespace
