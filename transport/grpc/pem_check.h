#pragma once

#include <string>

namespace tolvar {

/// A PEM file that was read.
struct PemFile {
  std::string name;  ///< for error texts: "the key file /etc/tolvar/server.key"
  std::string text;
};

/// Every certificate in `file` can be read, and there is at least one. Otherwise throws
/// ZU_Exception: which file, what is wrong with it, what to do. Any thread.
void checkCertificates(const PemFile& file);

/// `cert` is a certificate chain, `key` the unencrypted key of its first certificate, and a TLS
/// connection can be made with them. Throws as above. Dates are not looked at: a certificate that
/// has expired is its peer's to refuse. Any thread.
void checkPair(const PemFile& cert, const PemFile& key);

}  // namespace tolvar
