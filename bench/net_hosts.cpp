#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "bench/net_cases.h"
#include "bench/net_client.h"
#include "bench/net_process.h"
#include "tolvar.grpc.pb.h"
#include "transport/grpc/channel_factory.h"
#include "transport/grpc/page_call.h"

namespace tolvar_bench {
namespace {

using Clock = std::chrono::steady_clock;
using tolvar::wire::PageQuery;
namespace v1 = tolvar::v1;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// Nothing is ever written to it, so that its end is all there is to see.
bool inputOpen() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return poll(&input, 1, 0) == 0;
}

std::shared_ptr<grpc::Channel> hostChannel(const std::string& address) {
  return tolvar::makeChannel(address, grpc::InsecureChannelCredentials(), hostOptions(address));
}

/// One host: a connection of its own, on which it fetches one page after the other.
class Host {
 public:
  Host(const std::string& address, grpc::CompletionQueue& queue)
      : _queue(queue), _channel(hostChannel(address)), _stub(_channel) {}

  void fetch(const PageQuery& query) {
    v1::PageRequest request;
    request.set_high(query.high);
    request.set_low(query.low);
    request.set_size(query.size);
    _query = query;
    _context = std::make_unique<grpc::ClientContext>();
    _answer.Clear();
    _call =
        _stub.PrepareUnaryCall(_context.get(), tolvar::kFirstDownloadPageMethod, request, &_queue);
    _call->StartCall();
    _call->Finish(&_answer, &_status, this);
  }

  void check() const {
    grpc::ClientContext context;
    v1::CheckRequest request;
    request.set_content_md5("0");
    v1::CheckAnswer answer;
    const auto stub = v1::TolvarObj::NewStub(_channel);
    if (!stub->CheckChange(&context, request, &answer).ok() || answer.is_reset() != 1)
      throw std::runtime_error("a host got no reset");
  }

  /// After a page arrived. Throws when the call failed or the page is not right.
  void finish(bool decode) {
    if (!_status.ok()) throw std::runtime_error("a page failed: " + _status.error_message());
    ++pages;
    if (!decode) return;
    ravel::downloadInfo info;
    tolvar::wire::decodePage(tolvar::wire::PageBytes(_answer), _query, info);
  }

  int pages = 0;

 private:
  grpc::CompletionQueue& _queue;
  std::shared_ptr<grpc::Channel> _channel;
  grpc::TemplatedGenericStub<v1::PageRequest, grpc::ByteBuffer> _stub;
  PageQuery _query;
  std::unique_ptr<grpc::ClientContext> _context;
  std::unique_ptr<grpc::ClientAsyncResponseReader<grpc::ByteBuffer>> _call;
  grpc::ByteBuffer _answer;
  grpc::Status _status;
};

}  // namespace

Figures measureHosts(const NetTarget& target, int hosts, int pages, bool decode) {
  const std::vector<PageQuery> queries = pageQueries(target.service);
  grpc::CompletionQueue queue;
  std::vector<std::unique_ptr<Host>> all;
  for (int i = 0; i < hosts; ++i) {
    all.push_back(std::make_unique<Host>(target.service, queue));
    all.back()->check();
  }
  const double connected = memoryBytes(target.pid, "VmRSS");
  resetPeakMemory(target.pid);
  const ProcessorTime serverBefore = processorTime(target.pid);
  const ProcessorTime clientBefore = processorTime(getpid());
  const Clock::time_point begin = Clock::now();
  for (const auto& host : all) host->fetch(queries[0]);
  void* tag = nullptr;
  bool done = false;
  for (int left = hosts * pages; left > 0; --left) {
    queue.Next(&tag, &done);
    Host& host = *static_cast<Host*>(tag);
    host.finish(decode);
    if (host.pages < pages)
      host.fetch(queries[static_cast<std::size_t>(host.pages) % queries.size()]);
  }
  const double seconds = secondsSince(begin);
  const double total = static_cast<double>(hosts) * pages;
  Figures figures;
  figures["pages_per_second"] = total / seconds;
  const ProcessorTime server = processorTime(target.pid);
  const double perPage = 1e3 / total;
  figures["client_ms_per_page"] = perPage * (processorTime(getpid()).total - clientBefore.total);
  figures["server_ms_per_page"] = perPage * (server.total - serverBefore.total);
  figures["server_kernel_ms_per_page"] = perPage * (server.kernel - serverBefore.kernel);
  figures["server_connected_bytes"] = connected;
  figures["server_peak_bytes"] = memoryBytes(target.pid, "VmHWM");
  queue.Shutdown();
  while (queue.Next(&tag, &done)) {
  }
  return figures;
}

void runDownloads(const NetTarget& target) {
  constexpr int kConnections = 8;
  const std::vector<PageQuery> queries = pageQueries(target.service);
  grpc::CompletionQueue queue;
  std::vector<std::unique_ptr<Host>> all;
  for (int i = 0; i < kConnections; ++i) {
    all.push_back(std::make_unique<Host>(target.service, queue));
    all.back()->fetch(queries[0]);
  }
  std::size_t next = 0;
  void* tag = nullptr;
  bool done = false;
  int waiting = kConnections;
  while (waiting > 0 && queue.Next(&tag, &done)) {
    Host& host = *static_cast<Host*>(tag);
    host.finish(true);
    if (inputOpen())
      host.fetch(queries[++next % queries.size()]);
    else
      --waiting;
  }
  queue.Shutdown();
  while (queue.Next(&tag, &done)) {
  }
}

namespace {

/// A host that asks whether its table changed, again and again.
struct Checker {
  explicit Checker(const std::string& address)
      : channel(hostChannel(address)), stub(v1::TolvarObj::NewStub(channel)) {
    request.set_content_md5(std::string(32, '0'));
  }

  void ask(grpc::CompletionQueue& queue) {
    begin = Clock::now();
    context = std::make_unique<grpc::ClientContext>();
    call = stub->AsyncCheckChange(context.get(), request, &queue);
    call->Finish(&answer, &status, this);
  }

  std::shared_ptr<grpc::Channel> channel;
  std::unique_ptr<v1::TolvarObj::Stub> stub;
  v1::CheckRequest request;
  v1::CheckAnswer answer;
  Clock::time_point begin;
  std::unique_ptr<grpc::ClientContext> context;
  std::unique_ptr<grpc::ClientAsyncResponseReader<v1::CheckAnswer>> call;
  grpc::Status status;
};

double quantile(std::vector<double>& values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

}  // namespace

Figures measureChecks(const NetTarget& target, int hosts, int seconds) {
  grpc::CompletionQueue queue;
  std::vector<std::unique_ptr<Checker>> all;
  for (int i = 0; i < hosts; ++i) {
    all.push_back(std::make_unique<Checker>(target.service));
    all.back()->ask(queue);
  }
  std::vector<double> millis;
  const Clock::time_point begin = Clock::now();
  int waiting = hosts;
  void* tag = nullptr;
  bool done = false;
  while (waiting > 0 && queue.Next(&tag, &done)) {
    Checker& checker = *static_cast<Checker*>(tag);
    if (!checker.status.ok())
      throw std::runtime_error("a check failed: " + checker.status.error_message());
    millis.push_back(1e3 * secondsSince(checker.begin));
    if (secondsSince(begin) < seconds)
      checker.ask(queue);
    else
      --waiting;
  }
  Figures figures;
  figures["per_second"] = static_cast<double>(millis.size()) / secondsSince(begin);
  figures["p50_ms"] = quantile(millis, 0.5);
  figures["p99_ms"] = quantile(millis, 0.99);
  queue.Shutdown();
  while (queue.Next(&tag, &done)) {
  }
  return figures;
}

}  // namespace tolvar_bench
