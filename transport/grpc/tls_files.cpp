#include "transport/grpc/tls_files.h"

#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_credentials_options.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/exception.h"

namespace tolvar {
namespace {

using grpc::experimental::FileWatcherCertificateProvider;

constexpr std::streamsize kMaxPemBytes = 1048576;

std::string readPem(const std::string& role, const std::string& path) {
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  if (!in) throw qel::ZU_Exception("cannot read the " + role + " file " + path, errno);
  std::string text(kMaxPemBytes, '\0');
  in.read(text.data(), kMaxPemBytes);
  if (in.bad()) throw qel::ZU_Exception("cannot read the " + role + " file " + path, errno);
  text.resize(static_cast<std::size_t>(in.gcount()));
  return text;
}

/// The transport only logs a bad file and then fails every connection; here it is named at once.
void checkPem(const std::string& role, const std::string& path, const std::string& ending) {
  const std::string text = readPem(role, path);
  if (text.find("-----BEGIN ") == std::string::npos ||
      text.find(ending + "-----") == std::string::npos)
    throw qel::ZU_Exception("the " + role + " file " + path + " holds no PEM block \"" + ending +
                            "\"");
}

void checkIdentity(const GrpcTlsFiles& files) {
  if (files.certFile.empty() != files.keyFile.empty())
    throw qel::ZU_Exception("a certificate and its key must be given together");
  if (files.certFile.empty()) return;
  checkPem("certificate", files.certFile, "CERTIFICATE");
  checkPem("key", files.keyFile, "PRIVATE KEY");
}

std::shared_ptr<FileWatcherCertificateProvider> watch(const GrpcTlsFiles& files) {
  const auto seconds = std::max<std::chrono::seconds::rep>(1, files.reloadInterval.count());
  return std::make_shared<FileWatcherCertificateProvider>(
      files.keyFile, files.certFile, files.caFile, static_cast<unsigned>(seconds));
}

}  // namespace

std::shared_ptr<grpc::ChannelCredentials> clientCredentials(const GrpcTlsFiles& files) {
  checkPem("CA", files.caFile, "CERTIFICATE");
  checkIdentity(files);
  grpc::experimental::TlsChannelCredentialsOptions options;
  options.set_certificate_provider(watch(files));
  options.watch_root_certs();
  if (!files.certFile.empty()) options.watch_identity_key_cert_pairs();
  return grpc::experimental::TlsCredentials(options);
}

std::shared_ptr<grpc::ServerCredentials> serverCredentials(const GrpcTlsFiles& files) {
  if (files.certFile.empty()) throw qel::ZU_Exception("a server with TLS needs a certificate");
  checkIdentity(files);
  if (!files.caFile.empty()) checkPem("CA", files.caFile, "CERTIFICATE");
  grpc::experimental::TlsServerCredentialsOptions options(watch(files));
  options.watch_identity_key_cert_pairs();
  if (!files.caFile.empty()) {
    options.watch_root_certs();
    options.set_cert_request_type(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  }
  return grpc::experimental::TlsServerCredentials(options);
}

}  // namespace tolvar
