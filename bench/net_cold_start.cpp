#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>

#include "bench/net_cases.h"
#include "bench/net_client.h"
#include "bench/net_process.h"
#include "bench/support/host.h"
#include "tolvar.pb.h"
#include "tools/tolvar/private_run.h"
#include "transport/grpc/bytes_call.h"
#include "transport/grpc/channel_factory.h"
#include "transport/grpc/page_request.h"

namespace tolvar_bench {
namespace {

using grpc::ByteBuffer;
using Clock = std::chrono::steady_clock;
using tolvar::wire::PageQuery;

constexpr int kRepetitions = 15;

double millisSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// The smallest of some repetitions.
double smallest(int repetitions, const std::function<void()>& run) {
  double least = std::numeric_limits<double>::infinity();
  for (int i = 0; i < repetitions; ++i) {
    const Clock::time_point begin = Clock::now();
    run();
    least = std::min(least, millisSince(begin));
  }
  return least;
}

/// The bytes of every page, through the channel that clients use.
std::vector<ByteBuffer> fetchBytes(const NetTarget& target, const std::vector<PageQuery>& queries) {
  const auto channel = tolvar::makeChannel(target.service, grpc::InsecureChannelCredentials(),
                                           hostOptions(target.service));
  std::vector<ByteBuffer> pages;
  for (const PageQuery& query : queries) {
    grpc::ClientContext context;
    if (!tolvar::callForBytes(channel, tolvar::kFirstDownloadPageMethod, context,
                              tolvar::pageRequest(query), pages.emplace_back())
             .ok())
      throw std::runtime_error("a page cannot be fetched");
  }
  return pages;
}

/// Fetches any bytes, or sends some and gets them back, over a channel as gRPC makes it.
class BareClient {
 public:
  explicit BareClient(const std::string& address)
      : _channel(grpc::CreateChannel(address, grpc::InsecureChannelCredentials())),
        _stub(_channel) {}

  void fetch(std::size_t bytes) {
    const grpc::Slice text(std::to_string(bytes));
    call(ByteBuffer(&text, 1), bytes);
  }

  void echo(const ByteBuffer& bytes) { call(bytes, bytes.Length()); }

 private:
  void call(const ByteBuffer& request, std::size_t bytes) {
    ByteBuffer answer;
    grpc::ClientContext context;
    grpc::CompletionQueue queue;
    grpc::Status status;
    const auto running =
        _stub.PrepareUnaryCall(&context, tolvar::kFirstDownloadPageMethod, request, &queue);
    running->StartCall();
    running->Finish(&answer, &status, nullptr);
    void* tag = nullptr;
    bool done = false;
    queue.Next(&tag, &done);
    queue.Shutdown();
    while (queue.Next(&tag, &done)) {
    }
    if (!status.ok() || answer.Length() != bytes)
      throw std::runtime_error("a bare call failed: " + status.error_message());
  }

  std::shared_ptr<grpc::Channel> _channel;
  grpc::GenericStub _stub;
};

/// Passes calls on and adds up how long they take.
struct Phases {
  double conf = 0;
  double checks = 0;
  double pages = 0;
  double codes = 0;
};

template <class Call>
int timed(double* phase, Call call) {
  const Clock::time_point begin = Clock::now();
  const int answer = call();
  *phase += millisSince(begin);
  return answer;
}

class TimedMain final : public ravel::TolvarProxy {
 public:
  TimedMain(ravel::TolvarPrx proxy, Phases* phases) : _proxy(std::move(proxy)), _phases(phases) {}

  ravel::TolvarPrx selectServer(std::int64_t key) override {
    return std::make_shared<TimedMain>(_proxy->selectServer(key), _phases);
  }
  void cancelCalls() override { _proxy->cancelCalls(); }
  int getConf(ravel::ClientConf& conf, const ravel::CallContext& context,
              ravel::CallContext* response) override {
    return timed(&_phases->conf, [&] { return _proxy->getConf(conf, context, response); });
  }
  int checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info,
                     const ravel::CallContext& context, ravel::CallContext* response) override {
    return timed(&_phases->checks,
                 [&] { return _proxy->checkChangeAdv(req, info, context, response); });
  }
  int totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                          ravel::downloadInfo& page, const ravel::CallContext& context,
                          ravel::CallContext* response) override {
    return timed(&_phases->pages, [&] {
      return _proxy->totalDownloadIPInfo(high, low, size, page, context, response);
    });
  }
  int totalDownloadCode(std::vector<ravel::CodeInfo>& codes, const ravel::CallContext& context,
                        ravel::CallContext* response) override {
    return timed(&_phases->codes,
                 [&] { return _proxy->totalDownloadCode(codes, context, response); });
  }
  int reportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                   const ravel::CallContext& context, ravel::CallContext* response) override {
    return _proxy->reportCounts(counts, dropped, context, response);
  }
  int reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                  const ravel::CallContext& context, ravel::CallContext* response) override {
    return _proxy->reportLines(lines, dropped, context, response);
  }

 private:
  ravel::TolvarPrx _proxy;
  Phases* _phases;
};

class TimedFast final : public ravel::FTolvarProxy {
 public:
  TimedFast(ravel::FTolvarPrx proxy, Phases* phases) : _proxy(std::move(proxy)), _phases(phases) {}

  ravel::FTolvarPrx selectServer(std::int64_t key) override {
    return std::make_shared<TimedFast>(_proxy->selectServer(key), _phases);
  }
  void cancelCalls() override { _proxy->cancelCalls(); }
  int FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                               ravel::downloadInfo& page, const ravel::CallContext& context,
                               ravel::CallContext* response) override {
    return timed(&_phases->pages, [&] {
      return _proxy->FirstTotalDownloadIPInfo(high, low, size, page, context, response);
    });
  }

 private:
  ravel::FTolvarPrx _proxy;
  Phases* _phases;
};

class TimedCommunicator final : public qel::Communicator {
 public:
  TimedCommunicator(qel::Communicator& real, Phases* phases) : _real(real), _phases(phases) {}
  void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) override {
    _real.stringToProxy(name, proxy);
    proxy = std::make_shared<TimedMain>(proxy, _phases);
  }
  void stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) override {
    _real.stringToProxy(name, proxy);
    proxy = std::make_shared<TimedFast>(proxy, _phases);
  }

 private:
  qel::Communicator& _real;
  Phases* _phases;
};

/// Bytes to records, for the whole table, by both ways.
void measureDecoding(const std::vector<ByteBuffer>& pages, const std::vector<PageQuery>& queries,
                     Figures* figures) {
  const double share = 1.0 / static_cast<double>(pages.size());
  (*figures)["decode.direct_ms"] =
      share * smallest(kRepetitions, [&] {
        for (std::size_t i = 0; i < pages.size(); ++i) {
          ravel::downloadInfo info;
          tolvar::wire::decodePage(tolvar::wire::PageBytes(pages[i]), queries[i], info);
        }
      });
  (*figures)["decode.parser_ms"] =
      share * smallest(kRepetitions, [&] {
        for (std::size_t i = 0; i < pages.size(); ++i) {
          ByteBuffer copy(pages[i]);
          tolvar::v1::Page message;
          const grpc::Status status =
              grpc::SerializationTraits<tolvar::v1::Page>::Deserialize(&copy, &message);
          if (!status.ok()) throw std::runtime_error("a page cannot be parsed");
          ravel::downloadInfo info;
          tolvar::wire::decodePage(message, queries[i], info);
        }
      });
  std::vector<std::uint8_t> to(pages[0].Length());
  const tolvar::wire::PageBytes first(pages[0]);
  (*figures)["decode.memcpy_ms"] = smallest(kRepetitions, [&] {
    std::memcpy(to.data(), first.bytes().data(), to.size());
    asm volatile("" : : "r"(to.data()) : "memory");
  });
}

}  // namespace

Figures measureColdStart(const NetTarget& target) {
  Figures figures;
  const std::vector<PageQuery> queries = pageQueries(target.service);
  const std::vector<ByteBuffer> pages = fetchBytes(target, queries);
  double bytes = 0;
  for (const ByteBuffer& page : pages) bytes += static_cast<double>(page.Length());
  figures["table.pages"] = static_cast<double>(pages.size());
  figures["table.bytes"] = bytes;
  measureDecoding(pages, queries, &figures);

  tolvar::GrpcCommunicator communicator(hostOptions(target.service));
  ravel::FTolvarPrx proxy;
  communicator.stringToProxy(kFastName, proxy);
  BareClient bare(target.bare);
  double bareLeast = std::numeric_limits<double>::infinity();
  double echoLeast = bareLeast;
  double least = bareLeast;
  // In turns, so that a disturbance does not hit one of them alone.
  for (int i = 0; i < kRepetitions; ++i) {
    bareLeast = std::min(bareLeast, smallest(1, [&] {
                           for (const ByteBuffer& page : pages) bare.fetch(page.Length());
                         }));
    echoLeast = std::min(echoLeast, smallest(1, [&] {
                           for (const ByteBuffer& page : pages) bare.echo(page);
                         }));
    least = std::min(least, smallest(1, [&] {
                       download(*proxy, [](const PageQuery&, const ravel::downloadInfo&) {});
                     }));
  }
  figures["cold.bare_ms"] = bareLeast;
  figures["cold.echo_ms"] = echoLeast;
  figures["cold.download_ms"] = least;
  return figures;
}

Figures measureStart(const NetTarget& target) {
  const tolvar::tools::PrivateRun run;
  tolvar::GrpcCommunicator communicator(hostOptions(target.service));
  Phases phases;
  TimedCommunicator timedCommunicator(communicator, &phases);
  const double before = processorTime(getpid()).total;
  const Clock::time_point begin = Clock::now();
  const Client client(timedCommunicator, run.keys());
  const double total = millisSince(begin);
  return {{"total_ms", total},
          {"cpu_ms", 1e3 * (processorTime(getpid()).total - before)},
          {"conf_ms", phases.conf},
          {"checks_ms", phases.checks},
          {"pages_ms", phases.pages},
          {"codes_ms", phases.codes},
          {"rest_ms", total - phases.conf - phases.checks - phases.pages - phases.codes}};
}

}  // namespace tolvar_bench
