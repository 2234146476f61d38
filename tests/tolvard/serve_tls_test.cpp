#include <gmock/gmock.h>

#include <filesystem>

#include "platform/exception.h"
#include "tests/tolvard/serve_fixture.h"
#include "tests/transport_grpc/test_certificates.h"
#include "transport/grpc/grpc_log.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using tolvar::GrpcTlsFiles;
using tolvar_test::ServiceClient;
using tolvar_test::TestAuthority;
using tolvar_test::TolvardProcess;

class ServeTls : public tolvar_test::ServeFixture {
 protected:
  ServeTls() : authority("authority") { tolvar::silenceGrpcLibrary(); }
  void SetUp() override { import(TOLVAR_SAMPLE); }

  static std::string answer(const std::string& address, const std::optional<GrpcTlsFiles>& tls) {
    try {
      ServiceClient client(address, tls);
      client.check("0");
    } catch (const qel::ZU_Exception& error) {
      return error.what();
    }
    return "answered";
  }

  GrpcTlsFiles trusting() const {
    GrpcTlsFiles files;
    files.caFile = authority.caFile();
    return files;
  }

  TestAuthority authority;
};

TEST_F(ServeTls, AnEncryptedServiceAnswersThoseWhoTrustIt) {
  const GrpcTlsFiles own = authority.issue("server", "127.0.0.1");
  TolvardProcess server(database(), {"--tls-cert", own.certFile, "--tls-key", own.keyFile});
  EXPECT_EQ(answer(server.address(), trusting()), "answered");
  TestAuthority other("other");
  GrpcTlsFiles wrong;
  wrong.caFile = other.caFile();
  EXPECT_NE(answer(server.address(), wrong), "answered");
  EXPECT_NE(answer(server.address(), std::nullopt), "answered");
}

TEST_F(ServeTls, WithACaClientsMustShowACertificate) {
  const GrpcTlsFiles own = authority.issue("server", "127.0.0.1");
  TolvardProcess server(database(), {"--tls-cert", own.certFile, "--tls-key", own.keyFile,
                                     "--tls-ca", authority.caFile()});
  EXPECT_EQ(answer(server.address(), authority.issue("client", "host")), "answered");
  EXPECT_NE(answer(server.address(), trusting()), "answered");
  EXPECT_NE(answer(server.address(), authority.issue("expired", "host", -1)), "answered");
}

TEST_F(ServeTls, AUnixSocketIsEncryptedToo) {
  const GrpcTlsFiles own = authority.issue("server", "localhost");
  const std::string socket = "unix:" + directory.file("t.sock");
  TolvardProcess server(database(), {"--tls-cert", own.certFile, "--tls-key", own.keyFile}, socket);
  EXPECT_EQ(answer(socket, trusting()), "answered");
  EXPECT_NE(answer(socket, std::nullopt), "answered");
}

TEST_F(ServeTls, AChangedCertificateIsShownWithoutARestart) {
  const GrpcTlsFiles first = authority.issue("first", "127.0.0.1");
  const GrpcTlsFiles second = authority.issue("second", "127.0.0.1");
  const std::string cert = directory.file("cert.pem");
  const std::string key = directory.file("key.pem");
  std::filesystem::copy(first.certFile, cert);
  std::filesystem::copy(first.keyFile, key);
  TolvardProcess server(database(), {"--tls-cert", cert, "--tls-key", key});
  ASSERT_EQ(tolvar_test::shownFingerprint(server.address()),
            tolvar_test::fileFingerprint(first.certFile));
  std::filesystem::copy(second.keyFile, key + ".new");
  std::filesystem::copy(second.certFile, cert + ".new");
  std::filesystem::rename(key + ".new", key);
  std::filesystem::rename(cert + ".new", cert);
  const std::string wanted = tolvar_test::fileFingerprint(second.certFile);
  std::string shown;
  // Each attempt is a handshake that asks what is shown now; the test's time limit ends this.
  while ((shown = tolvar_test::shownFingerprint(server.address())) != wanted) {
  }
  EXPECT_EQ(shown, wanted);
  EXPECT_EQ(answer(server.address(), trusting()), "answered");
}

TEST_F(ServeTls, WhatCannotBeUsedIsLoggedAndWhatWasReadIsServed) {
  const GrpcTlsFiles own = authority.issue("own", "127.0.0.1");
  const GrpcTlsFiles next = authority.issue("next", "127.0.0.1");
  TolvardProcess server(database(), {"--tls-cert", own.certFile, "--tls-key", own.keyFile});
  const std::string shown = tolvar_test::fileFingerprint(own.certFile);
  const auto expectRefusal = [&](const std::string& file, const std::string& cause) {
    EXPECT_THAT(server.awaitLine("event=tls_files_"),
                AllOf(HasSubstr("event=tls_files_refused"), HasSubstr(file), HasSubstr(cause)));
    EXPECT_EQ(tolvar_test::shownFingerprint(server.address()), shown);
    EXPECT_EQ(answer(server.address(), trusting()), "answered");
  };
  tolvar_test::writeFile(own.certFile, "");
  expectRefusal(own.certFile, "is empty");
  tolvar_test::writeFile(own.certFile, tolvar_test::readFile(next.certFile));
  expectRefusal(own.keyFile, "does not belong");
  std::filesystem::rename(next.keyFile, own.keyFile);
  EXPECT_THAT(server.awaitLine("event=tls_files_"), HasSubstr("event=tls_files_served"));
  EXPECT_EQ(tolvar_test::shownFingerprint(server.address()),
            tolvar_test::fileFingerprint(next.certFile));
  EXPECT_EQ(answer(server.address(), trusting()), "answered");
}

TEST_F(ServeTls, FilesThatCannotBeUsedAreNamed) {
  const auto expectRefused = [&](const GrpcTlsFiles& files, const std::string& file,
                                 const std::string& cause) {
    const tolvar_test::ToolRun run =
        tolvard({"serve", "--listen", "127.0.0.1:0", "--tls-cert", files.certFile, "--tls-key",
                 files.keyFile, "--tls-ca", files.caFile});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_THAT(run.err, AllOf(HasSubstr(file), HasSubstr(cause)));
  };
  const GrpcTlsFiles good = authority.issue("own", "127.0.0.1");
  GrpcTlsFiles bad = good;
  bad.certFile = directory.file("no.pem");
  expectRefused(bad, bad.certFile, "No such file");
  bad = good;
  bad.keyFile = authority.issue("other", "127.0.0.1").keyFile;
  expectRefused(bad, bad.keyFile, "does not belong");
  bad.keyFile = directory.file("secret.key");
  tolvar_test::writeFile(bad.keyFile, tolvar_test::encryptedKey(good.keyFile));
  expectRefused(bad, bad.keyFile, "is encrypted");
  bad = good;
  bad.caFile = directory.file("ca.pem");
  tolvar_test::writeFile(bad.caFile,
                         "-----BEGIN CERTIFICATE-----\nrubbish\n-----END CERTIFICATE-----\n");
  expectRefused(bad, bad.caFile, "is damaged");
}

}  // namespace
