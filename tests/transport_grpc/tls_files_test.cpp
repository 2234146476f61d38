#include "transport/grpc/tls_files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/exception.h"
#include "tests/transport_grpc/test_certificates.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using tolvar::GrpcTlsFiles;
using tolvar::TlsFiles;
using tolvar_test::readFile;
using tolvar_test::TestAuthority;
using tolvar_test::writeFile;

constexpr const char* kRubbish =
    "-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n";

std::string refusalOf(const GrpcTlsFiles& files) {
  try {
    TlsFiles read(files);
  } catch (const qel::ZU_Exception& error) {
    return error.what();
  }
  return "accepted";
}

class TlsFilesTest : public testing::Test {
 protected:
  TlsFilesTest() : authority("authority"), files(authority.issue("own", "127.0.0.1")) {}

  /// Refused while `path` holds `content`; the texts stay and the files are taken again afterwards.
  void expectRefused(const std::string& path, const std::string& content,
                     const std::string& cause) {
    SCOPED_TRACE(cause);
    TlsFiles followed(files);
    const auto before = followed.texts();
    const std::string good = readFile(path);
    writeFile(path, content);
    EXPECT_THAT(refusalOf(files), AllOf(HasSubstr(path), HasSubstr(cause)));
    EXPECT_TRUE(followed.look());
    EXPECT_EQ(followed.refusal(), refusalOf(files));
    EXPECT_EQ(followed.texts(), before);
    EXPECT_FALSE(followed.look()) << "is told once";
    writeFile(path, good);
    EXPECT_TRUE(followed.look());
    EXPECT_EQ(followed.refusal(), "");
    EXPECT_EQ(followed.texts(), before);
    EXPECT_FALSE(followed.look());
  }

  TestAuthority authority;
  GrpcTlsFiles files;
};

TEST_F(TlsFilesTest, AnEmptyFileIsRefused) {
  for (const std::string& path : {files.caFile, files.certFile, files.keyFile})
    expectRefused(path, "", "is empty");
}

TEST_F(TlsFilesTest, DamagedFilesAreRefused) {
  const std::string chain = readFile(files.certFile);
  for (const std::string& path : {files.caFile, files.certFile}) {
    expectRefused(path, kRubbish, "certificate 1 in ");
    expectRefused(path, chain + kRubbish, "certificate 2 in ");
    expectRefused(path, chain + chain.substr(0, chain.size() / 2), "certificate 2 in ");
    expectRefused(path, readFile(files.keyFile), "holds no PEM block \"CERTIFICATE\"");
  }
  const std::string key = readFile(files.keyFile);
  expectRefused(files.keyFile, key.substr(0, key.size() / 2), "holds a damaged key");
  std::string damaged = key;
  damaged.replace(damaged.find('\n') + 1, 8, "AAAAAAAA");
  expectRefused(files.keyFile, damaged, "holds a damaged key");
}

TEST_F(TlsFilesTest, WhatIsNoTextIsRefused) {
  const std::string good = readFile(files.keyFile);
  expectRefused(files.keyFile, std::string(good.size(), '\0'), "holds no PEM block");
  expectRefused(files.keyFile, std::string(512, '\0') + good, "other things than text");
  expectRefused(files.caFile, readFile(files.caFile) + std::string(1048576, '\n'),
                "is larger than 1048576 bytes");
}

TEST_F(TlsFilesTest, AKeyThatIsNotTheCertificatesIsRefused) {
  const GrpcTlsFiles other = authority.issue("other", "127.0.0.1");
  expectRefused(
      files.keyFile, readFile(other.keyFile),
      "does not belong to the first certificate of the certificate file " + files.certFile);
  expectRefused(files.certFile, readFile(other.certFile), "does not belong");
  // The chain begins with another certificate.
  expectRefused(files.certFile, readFile(files.caFile) + readFile(files.certFile),
                "does not belong");
}

TEST_F(TlsFilesTest, AnEncryptedKeyIsRefusedWithoutAskingForItsPassword) {
  expectRefused(files.keyFile, tolvar_test::encryptedKey(files.keyFile), "is encrypted");
}

TEST_F(TlsFilesTest, AKeyTooShortForTlsIsRefused) {
  const GrpcTlsFiles weak = authority.issue("weak", "127.0.0.1", 2, "rsa:512");
  EXPECT_THAT(refusalOf(weak), AllOf(HasSubstr(weak.certFile), HasSubstr("key too small")));
}

TEST_F(TlsFilesTest, WhatIsNoFileIsRefused) {
  const std::string path = files.keyFile;
  std::filesystem::remove(path);
  EXPECT_THAT(refusalOf(files), AllOf(HasSubstr(path), HasSubstr("No such file")));
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(refusalOf(files), AllOf(HasSubstr(path), HasSubstr("is no regular file")));
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_THAT(refusalOf(files), AllOf(HasSubstr(path), HasSubstr("is no regular file")));
}

TEST_F(TlsFilesTest, APairThatIsReplacedFileByFileChangesTogether) {
  const GrpcTlsFiles next = authority.issue("next", "127.0.0.1");
  for (const bool keyFirst : {true, false}) {
    files = authority.issue("own", "127.0.0.1");
    TlsFiles followed(files);
    const auto before = followed.texts();
    const auto replaceKey = [&] { writeFile(files.keyFile, readFile(next.keyFile)); };
    const auto replaceCert = [&] { writeFile(files.certFile, readFile(next.certFile)); };
    keyFirst ? replaceKey() : replaceCert();
    EXPECT_TRUE(followed.look());
    EXPECT_EQ(followed.texts(), before);
    keyFirst ? replaceCert() : replaceKey();
    EXPECT_TRUE(followed.look());
    EXPECT_EQ(followed.refusal(), "");
    EXPECT_EQ(followed.texts()->cert, readFile(next.certFile));
    EXPECT_EQ(followed.texts()->key, readFile(next.keyFile));
  }
}

TEST_F(TlsFilesTest, WhatStandsAroundTheBlocksIsNoFault) {
  const std::string key = readFile(files.keyFile);
  writeFile(files.certFile, "made for a test\n" + readFile(files.certFile) + "\n" +
                                readFile(files.caFile) + key + "the end");
  writeFile(files.keyFile, readFile(files.certFile));
  EXPECT_EQ(refusalOf(files), "accepted");
}

}  // namespace
