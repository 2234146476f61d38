#include "transport/grpc/page_ahead.h"

#include <grpcpp/client_context.h>

#include <exception>
#include <utility>

#include "tolvar.pb.h"
#include "transport/grpc/page_call.h"

namespace tolvar {

using std::chrono::steady_clock;
using std::chrono::system_clock;

/// One call. What a cancellation needs stands before the call begins.
struct PageAhead::Fetch {
  Fetch(CallRegistry& registry, CallRegistry::Family family, const Endpoint& server,
        const wire::PageQuery& asked, std::chrono::milliseconds limit)
      : channel(server.channel()),
        query(asked),
        until(steady_clock::now() + limit),
        call(registry, family) {
    context.set_deadline(system_clock::now() + limit);
    call.attach(context);
  }

  void start(const char* method) {
    page = std::make_unique<PageCall>(channel, method, context, pageRequest(query));
  }

  bool answers(const Endpoint& server, const wire::PageQuery& other) const {
    return server.channel() == channel && other.cursor() == query.cursor() &&
           other.size == query.size && steady_clock::now() < until;
  }

  const std::shared_ptr<grpc::Channel> channel;
  const wire::PageQuery query;
  const steady_clock::time_point until;
  grpc::ClientContext context;
  CallRegistry::Call call;  // behind the context, which it may cancel until it goes
  std::unique_ptr<PageCall> page;
};

PageAhead::PageAhead(CallRegistry& registry, CallRegistry::Family family, const char* method)
    : _registry(registry), _family(family), _method(method) {}

PageAhead::~PageAhead() = default;

std::unique_ptr<PageAhead::Fetch> PageAhead::exchange(std::unique_ptr<Fetch> fetch) {
  const std::lock_guard lock(_mutex);
  return std::exchange(_fetch, std::move(fetch));
}

void PageAhead::ask(const Endpoint& server, const wire::PageQuery& query,
                    std::chrono::milliseconds limit) {
  drop();
  try {
    auto fetch = std::make_unique<Fetch>(_registry, _family, server, query, limit);
    fetch->start(_method);
    exchange(std::move(fetch));
  } catch (const std::exception&) {
    // The communicator has ended, or there is no memory for it.
  }
}

std::optional<wire::PageBytes> PageAhead::take(const Endpoint& server, const wire::PageQuery& query,
                                               system_clock::time_point until) {
  const std::unique_ptr<Fetch> fetch = exchange(nullptr);
  if (!fetch || !fetch->answers(server, query)) return std::nullopt;
  if (!fetch->page->await(until) || !fetch->page->status().ok()) return std::nullopt;
  return wire::PageBytes(fetch->page->answer());
}

void PageAhead::drop() { exchange(nullptr); }

}  // namespace tolvar
