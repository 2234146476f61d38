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
#include "transport/grpc/page_request.h"

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

/// The bytes of a message, or of a text.
grpc::ByteBuffer bytesOf(const std::string& text) {
  const grpc::Slice slice(text);
  return grpc::ByteBuffer(&slice, 1);
}

/// One host: a connection of its own, on which it fetches one page after the other.
class Host {
 public:
  Host(const std::string& address, grpc::CompletionQueue& queue)
      : _queue(queue), _channel(hostChannel(address)), _stub(_channel) {}

  void fetch(const PageQuery& query) {
    _query = query;
    send(bytesOf(tolvar::pageRequest(query).SerializeAsString()));
  }

  /// Any bytes, from a bare service.
  void fetchBare(std::size_t bytes) { send(bytesOf(std::to_string(bytes))); }

  void check() const {
    grpc::ClientContext context;
    v1::CheckRequest request;
    request.set_content_md5("0");
    v1::CheckAnswer answer;
    const auto stub = v1::TolvarObj::NewStub(_channel);
    if (!stub->CheckChange(&context, request, &answer).ok() || answer.is_reset() != 1)
      throw std::runtime_error("a host got no reset");
  }

  /// After a page arrived. Throws when the call failed.
  void finish() {
    if (!_status.ok()) throw std::runtime_error("a page failed: " + _status.error_message());
    ++pages;
  }

  const grpc::ByteBuffer& answer() const noexcept { return _answer; }
  const PageQuery& query() const noexcept { return _query; }

  int pages = 0;

 private:
  void send(const grpc::ByteBuffer& request) {
    _context = std::make_unique<grpc::ClientContext>();
    _answer.Clear();
    _call =
        _stub.PrepareUnaryCall(_context.get(), tolvar::kFirstDownloadPageMethod, request, &_queue);
    _call->StartCall();
    _call->Finish(&_answer, &_status, this);
  }

  grpc::CompletionQueue& _queue;
  std::shared_ptr<grpc::Channel> _channel;
  grpc::GenericStub _stub;
  PageQuery _query;
  std::unique_ptr<grpc::ClientContext> _context;
  std::unique_ptr<grpc::ClientAsyncResponseReader<grpc::ByteBuffer>> _call;
  grpc::ByteBuffer _answer;
  grpc::Status _status;
};

/// Makes records of a page, as clients do. Throws when it is not right.
void decodePage(const grpc::ByteBuffer& page, const PageQuery& query) {
  ravel::downloadInfo info;
  tolvar::wire::decodePage(tolvar::wire::PageBytes(page), query, info);
}

/// Waits for an answer; the host whose page it is.
Host& nextHost(grpc::CompletionQueue& queue) {
  void* tag = nullptr;
  bool done = false;
  if (!queue.Next(&tag, &done)) throw std::runtime_error("a completion queue ended");
  Host& host = *static_cast<Host*>(tag);
  host.finish();
  return host;
}

/// What the hosts fetch, one after the other, and do with it: pages of the service, or as many
/// bytes of the bare one, for each of which they decode a page fetched beforehand.
class Fetches {
 public:
  Fetches(const NetTarget& target, int pages, HostWork work)
      : _queries(pageQueries(target.service)), _work(work) {
    if (_work != HostWork::Bare) return;
    grpc::CompletionQueue queue;
    Host host(target.service, queue);
    for (int i = 0; i < pages; ++i) {
      host.fetch(query(i));
      _pages.push_back(nextHost(queue).answer());
    }
    shutDown(queue);
  }

  void connect(Host& host, grpc::CompletionQueue& queue) const {
    if (_work != HostWork::Bare) return host.check();
    host.fetchBare(1);
    nextHost(queue).pages = 0;
  }

  void next(Host& host) const {
    if (_work == HostWork::Bare)
      host.fetchBare(page(host.pages).Length());
    else
      host.fetch(query(host.pages));
  }

  /// After an answer.
  void use(const Host& host) const {
    if (_work == HostWork::Decode) decodePage(host.answer(), host.query());
    if (_work == HostWork::Bare) decodePage(page(host.pages - 1), query(host.pages - 1));
  }

  static void shutDown(grpc::CompletionQueue& queue) {
    queue.Shutdown();
    void* tag = nullptr;
    bool done = false;
    while (queue.Next(&tag, &done)) {
    }
  }

 private:
  const PageQuery& query(int page) const {
    return _queries[static_cast<std::size_t>(page) % _queries.size()];
  }

  const grpc::ByteBuffer& page(int index) const { return _pages[static_cast<std::size_t>(index)]; }

  const std::vector<PageQuery> _queries;
  const HostWork _work;
  std::vector<grpc::ByteBuffer> _pages;
};

}  // namespace

Figures measureHosts(const NetTarget& target, int hosts, int pages, HostWork work) {
  const Fetches fetches(target, pages, work);
  grpc::CompletionQueue queue;
  std::vector<std::unique_ptr<Host>> all;
  for (int i = 0; i < hosts; ++i) {
    all.push_back(
        std::make_unique<Host>(work == HostWork::Bare ? target.bare : target.service, queue));
    fetches.connect(*all.back(), queue);
  }
  const double connected = memoryBytes(target.pid, "VmRSS");
  resetPeakMemory(target.pid);
  const ProcessorTime serverBefore = processorTime(target.pid);
  const ProcessorTime clientBefore = processorTime(getpid());
  const Clock::time_point begin = Clock::now();
  for (const auto& host : all) fetches.next(*host);
  for (int left = hosts * pages; left > 0; --left) {
    Host& host = nextHost(queue);
    fetches.use(host);
    if (host.pages < pages) fetches.next(host);
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
  Fetches::shutDown(queue);
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
    host.finish();
    decodePage(host.answer(), host.query());
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
