#pragma once

#include <string>

#include "tests/support/temp_dir.h"
#include "transport/grpc/grpc_options.h"

namespace tolvar_test {

/// A certificate authority of the test's own, made with the openssl command in a temporary
/// directory.
class TestAuthority {
 public:
  /// `name` tells authorities apart.
  explicit TestAuthority(const std::string& name);

  std::string caFile() const { return _directory.file("ca.pem"); }

  /// A certificate for `host` (a name, or "127.0.0.1") and its key; `label` tells them apart, a
  /// negative `days` makes one that has expired, `algorithm` is as `openssl req -newkey` takes it.
  /// The CA file of the answer is this authority's, the reload interval 1 s.
  tolvar::GrpcTlsFiles issue(const std::string& label, const std::string& host, int days = 2,
                             const std::string& algorithm = kStrong);

 private:
  static constexpr const char* kStrong = "ec -pkeyopt ec_paramgen_curve:prime256v1";

  TempDir _directory;
};

/// The same key under a password.
std::string encryptedKey(const std::string& keyFile);

/// SHA-256 fingerprint of the certificate that a TLS server shows.
std::string shownFingerprint(const std::string& address);

/// SHA-256 fingerprint of a certificate file.
std::string fileFingerprint(const std::string& certFile);

}  // namespace tolvar_test
