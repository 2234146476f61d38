#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>

#include "platform/exception.h"
#include "tests/transport_grpc/test_certificates.h"
#include "tests/transport_grpc/test_ports.h"
#include "tests/transport_grpc/test_tables.h"
#include "tools/tolvard/server/grpc_server.h"
#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/grpc_log.h"

namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar::GrpcServer;
using tolvar::GrpcTlsFiles;
using tolvar_test::loopback;
using tolvar_test::TestAuthority;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";

/// A client that is kept.
class Caller {
 public:
  Caller(const std::string& address, const std::optional<GrpcTlsFiles>& files,
         const std::string& name = "")
      : _communicator(options(address, files, name)) {
    _communicator.stringToProxy(kMain, _proxy);
  }

  /// "answered", or the text of the failure.
  std::string call() {
    ravel::ClientConf conf;
    try {
      _proxy->getConf(conf);
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "answered";
  }

  /// Calls until the outcome holds `text`; the last outcome.
  std::string callUntil(const std::string& text) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::string outcome;
    do outcome = call();
    while (outcome.find(text) == std::string::npos && std::chrono::steady_clock::now() < limit);
    return outcome;
  }

 private:
  static GrpcOptions options(const std::string& address, const std::optional<GrpcTlsFiles>& files,
                             const std::string& name) {
    GrpcOptions options;
    options.endpoints = {{kMain, {address}}};
    options.checkDeadline = milliseconds(800);
    options.tls = files;
    options.authority = name;
    return options;
  }

  GrpcCommunicator _communicator;
  ravel::TolvarPrx _proxy;
};

/// What a server tells of its TLS files.
class TlsReports {
 public:
  void add(const std::string& refusal) {
    const std::lock_guard lock(_mutex);
    _waiting.push_back(refusal);
    _changed.notify_all();
  }

  /// Waits for the next one: a refusal, "taken", or "none" within 20 s.
  std::string next() {
    std::unique_lock lock(_mutex);
    if (!_changed.wait_for(lock, std::chrono::seconds(20), [&] { return !_waiting.empty(); }))
      return "none";
    const std::string report = _waiting.front();
    _waiting.pop_front();
    return report.empty() ? "taken" : report;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<std::string> _waiting;  ///< guarded by _mutex
};

class GrpcTls : public testing::Test {
 protected:
  GrpcTls() : authority("authority") { tolvar::silenceGrpcLibrary(); }

  /// Serves with `files`; clients must show certificates when it has a CA file.
  void serve(const GrpcTlsFiles& files, const std::vector<std::string>& listen = {"127.0.0.1:0"}) {
    tolvar::GrpcServerOptions options;
    options.listen = listen;
    options.tls = files;
    options.onTlsFiles = [this](const std::string& refusal) { reports.add(refusal); };
    server = std::make_unique<GrpcServer>(tolvar_test::makeService(10), options);
  }

  std::string address() const { return loopback(server->ports()[0]); }

  /// The outcome of a new client's call.
  std::string call(const std::optional<GrpcTlsFiles>& files, const std::string& name = "") {
    return Caller(address(), files, name).call();
  }

  GrpcTlsFiles trusting(const TestAuthority& trusted) const {
    GrpcTlsFiles files;
    files.caFile = trusted.caFile();
    return files;
  }

  TestAuthority authority;
  TlsReports reports;
  std::unique_ptr<GrpcServer> server;
};

TEST_F(GrpcTls, ServerWithoutClientCertificates) {
  GrpcTlsFiles files = authority.issue("server", "127.0.0.1");
  files.caFile.clear();
  serve(files);
  EXPECT_EQ(call(trusting(authority)), "answered");
  const TestAuthority stranger("stranger");
  EXPECT_THAT(call(trusting(stranger)), HasSubstr("certificate verify failed"));
  EXPECT_THAT(call(std::nullopt), HasSubstr("it may want TLS"));  // in the clear
}

TEST_F(GrpcTls, AnExpiredServerCertificateIsRefused) {
  GrpcTlsFiles files = authority.issue("server", "127.0.0.1", -1);
  files.caFile.clear();
  serve(files);
  EXPECT_THAT(call(trusting(authority)), HasSubstr("certificate verify failed"));
}

TEST_F(GrpcTls, MutualTlsTakesOnlyCertificatesOfItsAuthority) {
  serve(authority.issue("server", "127.0.0.1"));
  EXPECT_EQ(call(authority.issue("client", "client.example")), "answered");
  EXPECT_THAT(call(trusting(authority)), HasSubstr("UNAVAILABLE"));  // shows none
  EXPECT_THAT(call(authority.issue("late", "client.example", -1)), HasSubstr("UNAVAILABLE"));
  TestAuthority stranger("stranger");
  GrpcTlsFiles foreign = stranger.issue("client", "client.example");
  foreign.caFile = authority.caFile();
  EXPECT_THAT(call(foreign), HasSubstr("UNAVAILABLE"));
}

TEST_F(GrpcTls, TheServersNameIsCheckedAndCanBeGiven) {
  GrpcTlsFiles files = authority.issue("server", "lookup.example");
  files.caFile.clear();
  serve(files);
  EXPECT_THAT(call(trusting(authority)), HasSubstr("Hostname Verification"));
  EXPECT_EQ(call(trusting(authority), "lookup.example"), "answered");
  EXPECT_THAT(call(trusting(authority), "other.example"), HasSubstr("Hostname Verification"));
}

TEST_F(GrpcTls, AHandshakeThatFailsSaysWhatMayBeWrong) {
  serve(authority.issue("server", "127.0.0.1"));
  const TestAuthority other("other");
  EXPECT_THAT(call(trusting(other)), HasSubstr("from no authority of the CA file"));
  EXPECT_THAT(call(trusting(authority), "elsewhere.example"), HasSubstr("is for other names"));
  EXPECT_THAT(call(std::nullopt), HasSubstr("it may want TLS"));
  serve(authority.issue("expired", "127.0.0.1", -1));
  EXPECT_THAT(call(trusting(authority)), HasSubstr("has expired"));
  const GrpcServer plain(tolvar_test::makeService(10), [] {
    tolvar::GrpcServerOptions options;
    options.listen = {"127.0.0.1:0"};
    return options;
  }());
  EXPECT_THAT(Caller(loopback(plain.ports()[0]), trusting(authority), "").call(),
              HasSubstr("does not answer with TLS"));
}

TEST_F(GrpcTls, ANewCertificateIsShownWithoutARestart) {
  GrpcTlsFiles files = authority.issue("server", "127.0.0.1");
  files.caFile.clear();
  serve(files);
  const std::string before = tolvar_test::fileFingerprint(files.certFile);
  ASSERT_EQ(tolvar_test::shownFingerprint(address()), before);

  const GrpcTlsFiles next = authority.issue("next", "127.0.0.1");
  const std::string after = tolvar_test::fileFingerprint(next.certFile);
  ASSERT_NE(after, before);
  std::filesystem::rename(next.keyFile, files.keyFile);
  std::filesystem::rename(next.certFile, files.certFile);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  std::string shown = before;
  while (shown != after && std::chrono::steady_clock::now() < limit)
    shown = tolvar_test::shownFingerprint(address());
  EXPECT_EQ(shown, after);
  EXPECT_EQ(call(trusting(authority)), "answered");
}

TEST_F(GrpcTls, AServerWhoseFileIsEmptiedServesWhatItHeld) {
  const GrpcTlsFiles files = authority.issue("server", "127.0.0.1");
  const GrpcTlsFiles client = authority.issue("client", "client.example");
  serve(files);
  const std::string shown = tolvar_test::shownFingerprint(address());
  for (const std::string& path : {files.keyFile, files.certFile, files.caFile}) {
    const std::string good = tolvar_test::readFile(path);
    tolvar_test::writeFile(path, "");
    EXPECT_THAT(reports.next(), AllOf(HasSubstr(path), HasSubstr("is empty")));
    EXPECT_EQ(tolvar_test::shownFingerprint(address()), shown);
    tolvar_test::writeFile(path, good);
    EXPECT_EQ(reports.next(), "taken");
    EXPECT_EQ(call(client), "answered");
  }
}

TEST_F(GrpcTls, APairIsTakenWhenBothFilesAreThere) {
  GrpcTlsFiles files = authority.issue("server", "127.0.0.1");
  files.caFile.clear();
  serve(files, {"127.0.0.1:0", "127.0.0.1:0"});
  const std::string before = tolvar_test::fileFingerprint(files.certFile);
  const GrpcTlsFiles next = authority.issue("next", "127.0.0.1");
  const std::string after = tolvar_test::fileFingerprint(next.certFile);

  std::filesystem::rename(next.keyFile, files.keyFile);
  EXPECT_THAT(reports.next(), AllOf(HasSubstr(files.keyFile), HasSubstr("does not belong")));
  for (const int port : server->ports())
    EXPECT_EQ(tolvar_test::shownFingerprint(loopback(port)), before);
  EXPECT_EQ(call(trusting(authority)), "answered");

  std::filesystem::rename(next.certFile, files.certFile);
  EXPECT_EQ(reports.next(), "taken");
  for (const int port : server->ports())
    EXPECT_EQ(tolvar_test::shownFingerprint(loopback(port)), after);
  EXPECT_EQ(call(trusting(authority)), "answered");
}

TEST_F(GrpcTls, ConnectionsThatStandAreKeptWhenTheCertificateChanges) {
  GrpcTlsFiles files = authority.issue("server", "127.0.0.1");
  files.caFile.clear();
  serve(files);
  Caller connected(address(), trusting(authority));
  ASSERT_EQ(connected.call(), "answered");
  TestAuthority stranger("stranger");
  const GrpcTlsFiles next = stranger.issue("next", "127.0.0.1");
  std::filesystem::rename(next.keyFile, files.keyFile);
  std::filesystem::rename(next.certFile, files.certFile);
  while (reports.next().find("does not belong") != std::string::npos) {
  }
  EXPECT_EQ(call(trusting(stranger)), "answered");
  EXPECT_THAT(call(trusting(authority)), HasSubstr("certificate verify failed"));
  EXPECT_EQ(connected.call(), "answered");
}

TEST_F(GrpcTls, AClientWhoseFileIsEmptiedGoesOnWithWhatItHeld) {
  const GrpcTlsFiles own = authority.issue("server", "127.0.0.1");
  serve(own);
  const std::string address = this->address();
  const GrpcTlsFiles files = authority.issue("client", "client.example");
  Caller client(address, files);
  ASSERT_EQ(client.call(), "answered");
  tolvar_test::writeFile(files.certFile, "");
  server.reset();
  EXPECT_THAT(client.callUntil(files.certFile),
              AllOf(HasSubstr("UNAVAILABLE"), HasSubstr(files.certFile + " is empty")));
  serve(own, {address});
  EXPECT_EQ(client.callUntil("answered"), "answered");
}

TEST_F(GrpcTls, AClientTakesAnotherCertificate) {
  TestAuthority stranger("stranger");
  GrpcTlsFiles own = authority.issue("server", "127.0.0.1");
  own.caFile = stranger.caFile();
  serve(own);
  const GrpcTlsFiles files = authority.issue("client", "client.example");
  Caller client(address(), files);
  EXPECT_THAT(client.call(), HasSubstr("UNAVAILABLE"));
  const GrpcTlsFiles next = stranger.issue("client", "client.example");
  std::filesystem::rename(next.keyFile, files.keyFile);
  EXPECT_THAT(client.callUntil("does not belong"),
              AllOf(HasSubstr("UNAVAILABLE"), HasSubstr(files.keyFile)));
  std::filesystem::rename(next.certFile, files.certFile);
  EXPECT_EQ(client.callUntil("answered"), "answered");
}

TEST_F(GrpcTls, FilesThatAClientCannotUseAreNamed) {
  GrpcTlsFiles files = authority.issue("client", "client.example");
  files.keyFile = authority.issue("other", "client.example").keyFile;
  const auto connect = [&] { Caller client("127.0.0.1:1", files); };
  EXPECT_THAT(connect, testing::ThrowsMessage<qel::ZU_Exception>(HasSubstr(files.keyFile)));
  files.caFile.clear();
  EXPECT_THAT(connect, testing::ThrowsMessage<qel::ZU_Exception>(HasSubstr("needs a CA file")));
}

TEST_F(GrpcTls, FilesThatCannotServeAreNamed) {
  const auto refusal = [&](const GrpcTlsFiles& files) -> std::string {
    try {
      serve(files);
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "accepted";
  };
  const GrpcTlsFiles good = authority.issue("server", "127.0.0.1");
  GrpcTlsFiles bad = good;
  bad.certFile = "/nowhere/cert.pem";
  EXPECT_THAT(refusal(bad), HasSubstr("/nowhere/cert.pem"));
  bad = good;
  bad.keyFile = good.certFile;
  EXPECT_THAT(refusal(bad), HasSubstr("holds no PEM block \"PRIVATE KEY\""));
  bad = good;
  bad.keyFile.clear();
  EXPECT_THAT(refusal(bad), HasSubstr("given together"));
  EXPECT_THAT(refusal(GrpcTlsFiles{}), HasSubstr("needs a certificate"));
}

}  // namespace
