#include "tools/tolvard/serve/serve_command.h"

#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>

#include "tools/tolvard/serve/event_log.h"
#include "tools/tolvard/serve/store_follower.h"
#include "tools/tolvard/serve/usage_writer.h"
#include "transport/grpc/grpc_log.h"

namespace tolvar::tools {
namespace {

/// With what follows it, SIGTERM takes less than five seconds.
constexpr std::chrono::milliseconds kGrace{3000};
constexpr std::int64_t kOverloadLogMillis = 10000;

/// The signals that a service is told things with, blocked in all threads made from now on.
sigset_t takeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// Every connection takes a descriptor; the usual soft limit is for programs with few.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

const char* nameOf(int signal) {
  return signal == SIGTERM ? "SIGTERM" : signal == SIGINT ? "SIGINT" : "SIGHUP";
}

/// Says from time to time that downloads were put off.
class OverloadNotice {
 public:
  OverloadNotice(const GrpcServer& server, std::size_t limit, EventLog& log)
      : _server(server), _limit(limit), _log(log) {}

  void look() {
    const std::uint64_t refused = _server.refusedChecks();
    const std::int64_t now = qel::systemClock().steadyMillis();
    if (refused == _told || now < _nextAt) return;
    _log.warn("overload", {{"checks_put_off", refused - _told},
                           {"downloads", _server.activeDownloads()},
                           {"max_downloads", _limit}});
    _told = refused;
    _nextAt = now + kOverloadLogMillis;
  }

 private:
  const GrpcServer& _server;
  const std::size_t _limit;
  EventLog& _log;
  std::uint64_t _told = 0;
  std::int64_t _nextAt = 0;
};

void logCall(EventLog& log, const GrpcCallRecord& call) {
  const std::string millis =
      std::to_string(call.micros / 1000) + "." + std::to_string(call.micros % 1000 / 100);
  if (call.status == "OK") {
    log.info("call", {{"op", call.operation},
                      {"peer", call.peer},
                      {"status", call.status},
                      {"ms", millis},
                      {"bytes", call.answerBytes}});
  } else {
    log.warn("call", {{"op", call.operation},
                      {"peer", call.peer},
                      {"status", call.status},
                      {"ms", millis},
                      {"cause", call.message}});
  }
}

void logTlsFiles(EventLog& log, const std::string& certFile, const std::string& refusal) {
  if (refusal.empty())
    log.info("tls_files_served", {{"cert", certFile}});
  else
    log.warn("tls_files_refused", {{"cert", certFile}, {"cause", refusal}});
}

/// Waits for a signal; 0 after a second without one.
int awaitSignal(const sigset_t& signals) {
  const timespec second{1, 0};
  const int signal = sigtimedwait(&signals, nullptr, &second);
  return signal > 0 ? signal : 0;
}

}  // namespace

void ServeCommand::declare(CLI::App& app) {
  _store.declare(app);
  app.add_option(
         "--listen", _listen,
         "Where to listen: HOST:PORT, [IPV6]:PORT or unix:PATH; may be given several times. "
         "Port 0 is any free one, see event=listening (default: 127.0.0.1:50061)")
      ->type_name("ADDRESS")
      ->allow_extra_args(false);
  app.add_option("--fast-listen", _fastListen,
                 "One more address, for the object of first downloads")
      ->type_name("ADDRESS");
  app.add_option("--max-downloads", _maxDownloads,
                 "Full downloads at a time; more are told to come back later (default: 256)")
      ->check(CLI::Range(1, 1000000))
      ->type_name("N");
  app.add_option("--tls-cert", _tls.certFile, "Certificate chain, PEM; read again when it changes")
      ->type_name("FILE");
  app.add_option("--tls-key", _tls.keyFile, "Key of the certificate, PEM")->type_name("FILE");
  app.add_option("--tls-ca", _tls.caFile,
                 "Authorities, PEM; clients must show a certificate from one of them")
      ->type_name("FILE");
  app.add_flag("--insecure", _insecure, "Listen on any address without encryption");
  app.add_flag("--verbose", _verbose, "Log every call");
}

void ServeCommand::readAddresses() {
  if (!_fastListen.empty()) _listen.push_back(_fastListen);
  if (_tls.certFile.empty() != _tls.keyFile.empty())
    throw std::invalid_argument("--tls-cert and --tls-key go together");
  if (_tls.certFile.empty() && !_tls.caFile.empty())
    throw std::invalid_argument("--tls-ca needs --tls-cert and --tls-key");
  for (const std::string& text : _listen) {
    _addresses.push_back(parseListenAddress(text));
    if (_addresses.back().isLocal || !_tls.certFile.empty() || _insecure) continue;
    throw std::invalid_argument(
        text +
        " can be reached from other machines and would not be encrypted; give --tls-cert "
        "and --tls-key, or --insecure if that is meant");
  }
}

GrpcServerOptions ServeCommand::serverOptions() const {
  GrpcServerOptions options;
  for (const ListenAddress& address : _addresses) options.listen.push_back(address.text);
  if (!_tls.certFile.empty()) {
    options.tls = _tls;
    options.tls->reloadInterval = std::chrono::seconds(1);
  }
  options.maxDownloads = _maxDownloads;
  return options;
}

ExitStatus ServeCommand::run() {
  readAddresses();
  silenceGrpcLibrary();
  raiseDescriptorLimit();
  const sigset_t signals = takeSignals();
  EventLog log(STDOUT_FILENO);
  const auto service = std::make_shared<service::LookupService>();
  // Before the follower, whose thread works on the server until the follower is gone.
  std::optional<GrpcServer> server;
  StoreFollower follower(_store.path, *service, log);
  follower.open();
  if (!service->current())
    log.warn("no_table", {{"db", _store.path}, {"hint", "tolvard import makes the first version"}});

  GrpcServerOptions options = serverOptions();
  if (_verbose) options.onCall = [&log](const GrpcCallRecord& call) { logCall(log, call); };
  options.onTlsFiles = [&](const std::string& refusal) {
    logTlsFiles(log, _tls.certFile, refusal);
  };
  options.onConnectionsFull = [&log](const ConnectionShortage& shortage) {
    log.warn("connections_full", {{"limit", shortage.limit}, {"hint", shortage.hint}});
  };
  options.onConnectionsResumed = [&log] { log.info("connections_resumed", {}); };
  server.emplace(service, options);
  server->setServing(service->current() != nullptr);
  if (const auto version = service->current()) server->prepare(version);
  for (std::size_t i = 0; i < _addresses.size(); ++i) {
    log.info("listening", {{"address", _addresses[i].withPort(server->ports()[i])},
                           {"tls", !options.tls          ? "off"
                                   : _tls.caFile.empty() ? "server"
                                                         : "mutual"}});
  }
  follower.start({[&server](const auto& version, const std::stop_token& stop) {
                    server->prepare(version, stop);
                  },
                  [&server] {
                    server->dropOldVersions();
                    server->setServing(true);
                  }});
  {
    UsageWriter usage(_store.path, *service, log);
    OverloadNotice overload(*server, _maxDownloads, log);
    int signal = 0;
    while (signal != SIGTERM && signal != SIGINT) {
      if (signal == SIGHUP) follower.poke();
      signal = awaitSignal(signals);
      overload.look();
    }
    log.info("stopping", {{"signal", nameOf(signal)}});
    // While the calls under way come to their end, so does what the follower does.
    follower.requestStop();
    server->setServing(false);
    server->shutdown(kGrace);
    follower.stop();
  }
  log.info("stopped", {});
  return kExitDone;
}

}  // namespace tolvar::tools
