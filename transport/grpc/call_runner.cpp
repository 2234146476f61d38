#include "transport/grpc/call_runner.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <string_view>

#include "platform/exception.h"
#include "transport/grpc/page_codec.h"

namespace tolvar {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr milliseconds kPauseBetweenRounds{50};
constexpr std::string_view kContextPrefix = "tolvar-ctx-";
constexpr std::string_view kContextSuffix = "-bin";

/// What people can make of the end of the library's text when no connection was made.
struct Meaning {
  std::string_view end;
  const char* text;
};
constexpr Meaning kMeanings[] = {
    {"Socket closed",
     " (the server hung up: it may want TLS, or a client certificate that it trusts)"},
    {"certificate verify failed",
     " (the server's certificate has expired, or is from no authority of the CA file)"},
    {"Hostname Verification Check failed.",
     " (the server's certificate is for other names than the endpoint's)"},
    {"wrong version number", " (the server does not answer with TLS)"},
    {"Handshake read failed", " (what listens there does not answer)"},
};

const char* meaningOf(std::string_view cause) {
  const auto found = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                  [&](const Meaning& known) { return cause.ends_with(known.end); });
  return found == std::end(kMeanings) ? "" : found->text;
}

/// One call while it is being made.
class RunningCall {
 public:
  RunningCall(const CallPlan& plan, CallRegistry& registry, CallRegistry::Family family,
              const ravel::CallContext& context, ravel::CallContext* response,
              const CallRunner::Attempt& attempt)
      : _plan(plan),
        _call(registry, family),
        _context(context),
        _response(response),
        _attempt(attempt) {}

  void run(const EndpointSet::Endpoints& servers) {
    _lastServer = servers.front().get();
    if (_call.cancelled()) fail();
    do {
      for (std::size_t i = 0; i < servers.size(); ++i)
        if (tryServer(*servers[i], servers.size() - i)) return;
    } while (_call.pause(std::min(kPauseBetweenRounds, remaining())) && remaining().count() > 0);
    fail();
  }

 private:
  milliseconds elapsed() const {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - _begin);
  }
  milliseconds remaining() const { return std::max(milliseconds(0), _plan.deadline - elapsed()); }

  /// True when the call is done; false when another attempt makes sense; throws otherwise.
  bool tryServer(Endpoint& server, std::size_t serversLeft);
  grpc::Status send(Endpoint& server, milliseconds limit);
  bool mayTryAgain(Endpoint& server, bool wasReady) const;
  void applyContext(grpc::ClientContext& context) const;
  void readContext(const grpc::ClientContext& context);
  [[noreturn]] void fail() const;

  const CallPlan& _plan;
  CallRegistry::Call _call;
  const ravel::CallContext& _context;
  ravel::CallContext* const _response;
  const CallRunner::Attempt& _attempt;
  const steady_clock::time_point _begin = steady_clock::now();
  grpc::Status _last;
  const Endpoint* _lastServer = nullptr;
  bool _lastConnected = false;
};

bool RunningCall::tryServer(Endpoint& server, std::size_t serversLeft) {
  const milliseconds left = remaining();
  if (left.count() == 0 && !_last.ok()) fail();
  server.followCredentials();
  const bool wasReady = server.isReady();
  // A server that has no connection yet leaves time for the others.
  const milliseconds limit = wasReady ? left : left / static_cast<int>(serversLeft);
  const grpc::Status status = send(server, limit);
  if (status.ok()) {
    server.callSucceeded();
    return true;
  }
  _lastConnected = server.isReady();
  // The status at the deadline says nothing of why no connection was made; the one before does.
  if (status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED || _last.ok() || _lastConnected) {
    _last = status;
    _lastServer = &server;
  }
  if (_call.cancelled()) fail();
  const bool unreachable = status.error_code() == grpc::StatusCode::UNAVAILABLE ||
                           status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
  if (!unreachable) fail();
  server.callFailed();
  if (!mayTryAgain(server, wasReady)) fail();
  server.hastenReconnect();
  return false;
}

grpc::Status RunningCall::send(Endpoint& server, milliseconds limit) {
  grpc::ClientContext context;
  context.set_deadline(system_clock::now() + limit);
  _call.attach(context);
  grpc::Status status;
  try {
    applyContext(context);
    status = _attempt(server, context);
  } catch (const UnsendableRequest& error) {
    status = grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                          std::string("the request cannot be sent: ") + error.what());
  } catch (const wire::WireError& error) {
    status = grpc::Status(grpc::StatusCode::DATA_LOSS,
                          std::string("the answer breaks the contract: ") + error.what());
  } catch (const std::exception& error) {
    status = grpc::Status(grpc::StatusCode::INTERNAL, error.what());
  }
  _call.detach();
  if (status.ok()) readContext(context);
  return status;
}

bool RunningCall::mayTryAgain(Endpoint& server, bool wasReady) const {
  // Without a connection before and after, the request cannot have arrived.
  return _plan.repeatable || (!wasReady && !server.isReady());
}

void RunningCall::applyContext(grpc::ClientContext& context) const {
  for (const auto& [key, value] : _context) {
    const bool legal = !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
    });
    if (!legal)
      throw UnsendableRequest("the context key \"" + key +
                              "\" has other characters than a-z, 0-9, \"_\", \"-\" and \".\"");
    context.AddMetadata(std::string(kContextPrefix) + key + std::string(kContextSuffix), value);
  }
}

void RunningCall::readContext(const grpc::ClientContext& context) {
  if (_response == nullptr) return;
  for (const auto& [key, value] : context.GetServerTrailingMetadata()) {
    const std::string_view name(key.data(), key.size());
    if (name.size() <= kContextPrefix.size() + kContextSuffix.size() ||
        !name.starts_with(kContextPrefix) || !name.ends_with(kContextSuffix))
      continue;
    const std::size_t length = name.size() - kContextPrefix.size() - kContextSuffix.size();
    (*_response)[std::string(name.substr(kContextPrefix.size(), length))] =
        std::string(value.data(), value.size());
  }
}

void RunningCall::fail() const {
  std::string status = statusName(_last.error_code());
  std::string cause = _last.error_message();
  if (_call.cancelled()) {
    status = statusName(grpc::StatusCode::CANCELLED);
    const bool isTooLate = _last.ok() && _call.allEnded();
    cause = isTooLate ? "the communicator has ended" : "the client ended the call";
  } else if (_last.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    cause = _lastConnected ? "the service did not answer in time"
                           : "no connection to the service was made in time";
  } else if (!_lastConnected) {
    cause += meaningOf(cause);
  }
  if (const std::string refusal = _lastServer->credentialsRefusal();
      !_lastConnected && !refusal.empty())
    cause += "; connections are made with the TLS files as they were before: " + refusal;
  throw qel::ZU_Exception(_plan.operation + " at " + _lastServer->address() + ": " + status +
                          " after " + std::to_string(elapsed().count()) + " ms: " + cause);
}

}  // namespace

std::string statusName(grpc::StatusCode code) {
  static constexpr const char* kNames[] = {"OK",
                                           "CANCELLED",
                                           "UNKNOWN",
                                           "INVALID_ARGUMENT",
                                           "DEADLINE_EXCEEDED",
                                           "NOT_FOUND",
                                           "ALREADY_EXISTS",
                                           "PERMISSION_DENIED",
                                           "RESOURCE_EXHAUSTED",
                                           "FAILED_PRECONDITION",
                                           "ABORTED",
                                           "OUT_OF_RANGE",
                                           "UNIMPLEMENTED",
                                           "INTERNAL",
                                           "UNAVAILABLE",
                                           "DATA_LOSS",
                                           "UNAUTHENTICATED"};
  const auto index = static_cast<std::size_t>(code);
  return index < std::size(kNames) ? kNames[index] : "status " + std::to_string(index);
}

void CallRunner::run(const CallPlan& plan, const EndpointSet::Endpoints& servers,
                     const ravel::CallContext& context, ravel::CallContext* response,
                     const Attempt& attempt) {
  RunningCall(plan, _registry, _family, context, response, attempt).run(servers);
}

}  // namespace tolvar
