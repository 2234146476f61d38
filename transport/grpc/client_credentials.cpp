#include "transport/grpc/client_credentials.h"

#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_credentials_options.h>

#include <utility>
#include <vector>

#include "platform/exception.h"

namespace tolvar {
namespace {

using grpc::experimental::IdentityKeyCertPair;
using grpc::experimental::StaticDataCertificateProvider;

std::unique_ptr<TlsFiles> filesOf(const std::optional<GrpcTlsFiles>& files) {
  if (!files) return nullptr;
  if (files->caFile.empty()) throw qel::ZU_Exception("a client with TLS needs a CA file");
  return std::make_unique<TlsFiles>(*files);
}

/// Credentials that stay as they are. The library's own way to follow files ends the process when
/// one of them is empty.
std::shared_ptr<grpc::ChannelCredentials> credentialsOf(const TlsTexts& texts) {
  std::vector<IdentityKeyCertPair> own;
  if (!texts.cert.empty()) own.push_back({texts.key, texts.cert});
  grpc::experimental::TlsChannelCredentialsOptions options;
  options.set_certificate_provider(std::make_shared<StaticDataCertificateProvider>(texts.ca, own));
  options.watch_root_certs();
  if (!own.empty()) options.watch_identity_key_cert_pairs();
  return grpc::experimental::TlsCredentials(options);
}

}  // namespace

ClientCredentials::ClientCredentials(const std::optional<GrpcTlsFiles>& files)
    : _files(filesOf(files)) {
  if (!_files) {
    _credentials = grpc::InsecureChannelCredentials();
    return;
  }
  _lookAt = std::chrono::steady_clock::now() + _files->interval();
  _texts = _files->texts();
  _credentials = credentialsOf(*_texts);
}

std::shared_ptr<grpc::ChannelCredentials> ClientCredentials::current() {
  const std::lock_guard lock(_mutex);
  if (_files && std::chrono::steady_clock::now() >= _lookAt) follow();
  return _credentials;
}

void ClientCredentials::follow() {
  _files->look();
  _lookAt = std::chrono::steady_clock::now() + _files->interval();
  std::shared_ptr<const TlsTexts> texts = _files->texts();
  if (texts == _texts) return;
  _credentials = credentialsOf(*texts);
  _texts = std::move(texts);
}

std::string ClientCredentials::refusal() const { return _files ? _files->refusal() : ""; }

}  // namespace tolvar
