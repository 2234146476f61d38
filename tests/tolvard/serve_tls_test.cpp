#include <gmock/gmock.h>

#include <filesystem>

#include "platform/exception.h"
#include "tests/tolvard/serve_fixture.h"
#include "tests/transport_grpc/test_certificates.h"
#include "transport/grpc/grpc_log.h"

namespace {

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

TEST_F(ServeTls, FilesThatCannotBeUsedAreNamed) {
  const tolvar_test::ToolRun absent =
      tolvard({"serve", "--listen", "127.0.0.1:0", "--tls-cert", directory.file("no.pem"),
               "--tls-key", directory.file("no.key")});
  EXPECT_EQ(absent.exitStatus, 2);
  EXPECT_THAT(absent.err, HasSubstr("no.pem"));
}

}  // namespace
