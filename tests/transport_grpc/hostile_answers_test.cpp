// Answers that are within their size and would fill the client's memory.
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <optional>

#include "platform/exception.h"
#include "tests/transport_grpc/peak_memory.h"
#include "tests/transport_grpc/raw_server.h"
#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/wire_limits.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using tolvar_test::PeakMemory;
using tolvar_test::RawServer;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
constexpr std::size_t kLargest = tolvar::wire::MAX_RECV_BUFFER;

/// The bytes of an answer, once as the server's, and several times on their way to the client and
/// in it; parsed, they would take far more.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kSomeAnswersKib = 300 << 10;
#else
constexpr long kSomeAnswersKib = 150 << 10;
#endif

class HostileAnswers : public testing::Test {
 protected:
  void serve(const std::string& answer,
             grpc_compression_algorithm compression = GRPC_COMPRESS_NONE) {
    _server.emplace(answer, compression);
    tolvar::GrpcOptions options;
    options.endpoints = {{kMain, {_server->address()}}};
    // Much has to be sent and looked at, and machines under test are busy.
    options.checkDeadline = options.pageDeadline = std::chrono::seconds(30);
    _communicator.emplace(options);
    _communicator->stringToProxy(kMain, main);
  }

  /// An answer of the largest size, of one field over and over.
  void serveRepeated(const std::string& field) {
    std::string answer;
    answer.reserve(kLargest);
    while (answer.size() + field.size() <= kLargest) answer += field;
    serve(answer);
  }

  /// How the call fails.
  static std::string failureOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "no failure";
  }

  std::string failureOfConf() {
    return failureOf([&] {
      ravel::ClientConf conf;
      main->getConf(conf);
    });
  }
  std::string failureOfCodes() {
    return failureOf([&] {
      std::vector<ravel::CodeInfo> codes;
      main->totalDownloadCode(codes);
    });
  }
  std::string failureOfPage() {
    return failureOf([&] {
      ravel::downloadInfo page;
      main->totalDownloadIPInfo(0, 0, 50000, page);
    });
  }
  std::string failureOfCheck() {
    return failureOf([&] {
      ravel::CheckInfo info;
      main->checkChangeAdv({}, info);
    });
  }

  ravel::TolvarPrx main;

 private:
  std::optional<RawServer> _server;
  std::optional<tolvar::GrpcCommunicator> _communicator;
};

using namespace std::string_literals;

TEST_F(HostileAnswers, CodesOfEmptyRuns) {
  serveRepeated("\x12\x00"s);
  const PeakMemory memory;
  EXPECT_THAT(failureOfCodes(), AllOf(HasSubstr("DATA_LOSS"), HasSubstr("more than 65536 of run")));
  EXPECT_LT(memory.growthKib(), kSomeAnswersKib);
}

TEST_F(HostileAnswers, ConfOfEmptyCitys) {
  serveRepeated("\x12\x00"s);
  const PeakMemory memory;
  EXPECT_THAT(failureOfConf(),
              AllOf(HasSubstr("DATA_LOSS"), HasSubstr("more than 65536 of simple_log_citys")));
  EXPECT_LT(memory.growthKib(), kSomeAnswersKib);
}

TEST_F(HostileAnswers, FieldsThatNobodyKnows) {
  serveRepeated("\x7a\x00"s);
  const PeakMemory memory;
  const auto refused = AllOf(HasSubstr("DATA_LOSS"), HasSubstr("more than 1024 other fields"));
  EXPECT_THAT(failureOfConf(), refused);
  EXPECT_THAT(failureOfCheck(), refused);
  EXPECT_THAT(failureOfPage(), refused);
  EXPECT_LT(memory.growthKib(), kSomeAnswersKib);
}

TEST_F(HostileAnswers, CompressedAnswersAreNotUnpacked) {
  for (const auto algorithm : {GRPC_COMPRESS_GZIP, GRPC_COMPRESS_DEFLATE}) {
    serve(std::string(100 << 20, '\0'), algorithm);
    const PeakMemory memory;
    // Which one depends on whether the packed bytes or the refusal come first.
    for (const std::string& failure : {failureOfConf(), failureOfCodes(), failureOfPage()})
      EXPECT_THAT(failure, AnyOf(HasSubstr("is disabled"), HasSubstr("DATA_LOSS")));
    EXPECT_LT(memory.growthKib(), 64 << 10);
  }
}

TEST_F(HostileAnswers, BytesThatAreNoMessageAreFailures) {
  serve(std::string(50, '\xff'));
  for (const std::string& failure :
       {failureOfConf(), failureOfCheck(), failureOfCodes(), failureOfPage()})
    EXPECT_THAT(failure, AllOf(HasSubstr("DATA_LOSS"), HasSubstr("it is not a tolvar.v1.")));
}

}  // namespace
