#include "tools/tolvard/server/server_credentials.h"

#include <grpc/grpc.h>
#include <grpc/grpc_security.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/exception.h"
#include "transport/grpc/tls_files.h"

namespace tolvar {
namespace {

using ChangeHandler = std::function<void(const std::string& refusal)>;

/// While it lives: reads the files again every interval.
class FileFollower {
 public:
  FileFollower(TlsFiles& files, ChangeHandler onChange)
      : _files(files), _onChange(std::move(onChange)), _thread([this] { run(); }) {}

  ~FileFollower() {
    {
      const std::lock_guard lock(_mutex);
      _isEnding = true;
    }
    _changed.notify_one();
    _thread.join();
  }

  FileFollower(const FileFollower&) = delete;
  FileFollower& operator=(const FileFollower&) = delete;

 private:
  void run() {
    std::unique_lock lock(_mutex);
    while (!_changed.wait_for(lock, _files.interval(), [this] { return _isEnding; })) {
      lock.unlock();
      if (_files.look() && _onChange) _onChange(_files.refusal());
      lock.lock();
    }
  }

  TlsFiles& _files;
  const ChangeHandler _onChange;
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _isEnding = false;  ///< guarded by _mutex
  std::thread _thread;
};

/// What one listened address shows. The transport asks before every handshake.
class ShownCertificate {
 public:
  explicit ShownCertificate(const TlsFiles& files) : _files(files) {}

  /// A `grpc_ssl_server_certificate_config_callback`.
  static grpc_ssl_certificate_config_reload_status fetch(
      void* shown, grpc_ssl_server_certificate_config** config) {
    return static_cast<ShownCertificate*>(shown)->renew(config);
  }

 private:
  grpc_ssl_certificate_config_reload_status renew(grpc_ssl_server_certificate_config** config) {
    std::shared_ptr<const TlsTexts> texts = _files.texts();
    const std::lock_guard lock(_mutex);
    if (texts == _texts) return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_UNCHANGED;
    const grpc_ssl_pem_key_cert_pair pair{texts->key.c_str(), texts->cert.c_str()};
    // The library insists on authorities, also where no client is asked for a certificate.
    const std::string& authorities = texts->ca.empty() ? texts->cert : texts->ca;
    *config = grpc_ssl_server_certificate_config_create(authorities.c_str(), &pair, 1);
    _texts = std::move(texts);
    return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_NEW;
  }

  const TlsFiles& _files;
  std::mutex _mutex;
  std::shared_ptr<const TlsTexts> _texts;  ///< guarded by _mutex
};

/// The library's own credentials that follow files end the process when one of them is empty, and
/// serve nobody when key and certificate do not belong together. Its older ones ask for what to
/// show, but have no class of their own to be made with.
class FollowingCredentials final : public grpc::ServerCredentials {
 public:
  FollowingCredentials(const GrpcTlsFiles& files, ChangeHandler onChange)
      : _request(files.caFile.empty() ? GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE
                                      : GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY),
        _files(files),
        _follower(_files, std::move(onChange)) {}

  /// Nothing here looks at what calls carry.
  void SetAuthMetadataProcessor(const std::shared_ptr<grpc::AuthMetadataProcessor>&) override {}

 private:
  int AddPortToServer(const std::string& address, grpc_server* server) override {
    // Whether something is new is a question of each address.
    _shown.push_back(std::make_unique<ShownCertificate>(_files));
    grpc_server_credentials* credentials = grpc_ssl_server_credentials_create_with_options(
        grpc_ssl_server_credentials_create_options_using_config_fetcher(
            _request, ShownCertificate::fetch, _shown.back().get()));
    const int port = grpc_server_add_http2_port(server, address.c_str(), credentials);
    grpc_server_credentials_release(credentials);
    return port;
  }

  const grpc_ssl_client_certificate_request_type _request;
  TlsFiles _files;
  std::vector<std::unique_ptr<ShownCertificate>> _shown;
  FileFollower _follower;
};

}  // namespace

std::shared_ptr<grpc::ServerCredentials> serverCredentials(
    const GrpcTlsFiles& files, std::function<void(const std::string& refusal)> onChange) {
  if (files.certFile.empty()) throw qel::ZU_Exception("a server with TLS needs a certificate");
  return std::make_shared<FollowingCredentials>(files, std::move(onChange));
}

}  // namespace tolvar
