#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>

#include "platform/exception.h"
#include "tests/transport_grpc/test_certificates.h"
#include "tests/transport_grpc/test_ports.h"
#include "tests/transport_grpc/test_tables.h"
#include "tools/tolvard/server/grpc_server.h"
#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/grpc_log.h"

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using tolvar::GrpcCommunicator;
using tolvar::GrpcOptions;
using tolvar::GrpcServer;
using tolvar::GrpcTlsFiles;
using tolvar_test::loopback;
using tolvar_test::TestAuthority;

constexpr const char* kMain = "Test.Server.TolvarObj@tcp";

class GrpcTls : public testing::Test {
 protected:
  GrpcTls() : authority("authority") { tolvar::silenceGrpcLibrary(); }

  /// Serves with `files`; clients must show certificates when it has a CA file.
  void serve(const GrpcTlsFiles& files) {
    tolvar::GrpcServerOptions options;
    options.listen = {"127.0.0.1:0"};
    options.tls = files;
    server = std::make_unique<GrpcServer>(tolvar_test::makeService(10), options);
  }

  std::string address() const { return loopback(server->ports()[0]); }

  /// "answered", or the text of the failure.
  std::string call(const std::optional<GrpcTlsFiles>& files, const std::string& name = "") {
    GrpcOptions options;
    options.endpoints = {{kMain, {address()}}};
    options.checkDeadline = milliseconds(800);
    options.tls = files;
    options.authority = name;
    GrpcCommunicator communicator(options);
    ravel::TolvarPrx proxy;
    communicator.stringToProxy(kMain, proxy);
    ravel::ClientConf conf;
    try {
      proxy->getConf(conf);
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "answered";
  }

  GrpcTlsFiles trusting(const TestAuthority& trusted) const {
    GrpcTlsFiles files;
    files.caFile = trusted.caFile();
    return files;
  }

  TestAuthority authority;
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
