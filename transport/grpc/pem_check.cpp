#include "transport/grpc/pem_check.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <vector>

#include "platform/exception.h"

namespace tolvar {
namespace {

template <auto kFree>
struct FreeWith {
  template <class Object>
  void operator()(Object* object) const {
    kFree(object);
  }
};

using Bio = std::unique_ptr<BIO, FreeWith<BIO_free>>;
using Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using TlsContext = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>>;

/// Leaves the thread's queue of errors as empty as it is taken for, here and in the transport.
class ErrorQueue {
 public:
  ErrorQueue() { ERR_clear_error(); }
  ~ErrorQueue() { ERR_clear_error(); }
  ErrorQueue(const ErrorQueue&) = delete;
  ErrorQueue& operator=(const ErrorQueue&) = delete;

  static std::string cause() {
    const char* text = ERR_reason_error_string(ERR_peek_error());
    return text == nullptr ? "unknown cause" : text;
  }

  static bool saysNoMoreBlocks() {
    const unsigned long error = ERR_peek_last_error();
    return ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
  }
};

Bio reader(const PemFile& file) {
  Bio bio(BIO_new_mem_buf(file.text.data(), static_cast<int>(file.text.size())));
  if (!bio) throw qel::ZU_Exception("no memory to look through " + file.name);
  return bio;
}

void checkText(const PemFile& file, const std::string& ending) {
  if (file.text.empty())
    throw qel::ZU_Exception(file.name +
                            " is empty; write it again (was the disk full when it was written?)");
  // The transport takes a text up to its first byte 0.
  if (file.text.find('\0') != std::string::npos ||
      file.text.find(ending + "-----") == std::string::npos)
    throw qel::ZU_Exception(file.name + " holds no PEM block \"" + ending +
                            "\", or other things than text; give a PEM file");
}

/// Instead of the library's own, which asks at the terminal; `wasAsked` is a bool.
int refusePassword(char*, int, int, void* wasAsked) {
  *static_cast<bool*>(wasAsked) = true;
  return -1;
}

std::vector<Certificate> certificatesOf(const PemFile& file) {
  checkText(file, "CERTIFICATE");
  const ErrorQueue errors;
  const Bio bio = reader(file);
  bool isEncrypted = false;
  std::vector<Certificate> found;
  while (X509* next = PEM_read_bio_X509_AUX(bio.get(), nullptr, refusePassword, &isEncrypted))
    found.emplace_back(next);
  if (found.empty() || !errors.saysNoMoreBlocks())
    throw qel::ZU_Exception("certificate " + std::to_string(found.size() + 1) + " in " + file.name +
                            " is damaged (" + errors.cause() + "); write the file again");
  return found;
}

Key keyOf(const PemFile& file) {
  checkText(file, "PRIVATE KEY");
  const ErrorQueue errors;
  const Bio bio = reader(file);
  bool isEncrypted = false;
  Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassword, &isEncrypted));
  if (isEncrypted)
    throw qel::ZU_Exception(file.name +
                            " is encrypted, and nobody can be asked for the password; store the "
                            "key without one (openssl pkey -in OLD -out NEW)");
  if (!key)
    throw qel::ZU_Exception(file.name + " holds a damaged key (" + errors.cause() +
                            "); write the file again");
  return key;
}

}  // namespace

void checkCertificates(const PemFile& file) { certificatesOf(file); }

void checkPair(const PemFile& cert, const PemFile& key) {
  const std::vector<Certificate> chain = certificatesOf(cert);
  const Key own = keyOf(key);
  const ErrorQueue errors;
  if (X509_check_private_key(chain.front().get(), own.get()) != 1)
    throw qel::ZU_Exception(key.name + " does not belong to the first certificate of " + cert.name +
                            "; give the key that the certificate was issued for");
  // Also refuses what the system's security level forbids, a short key for example.
  const TlsContext context(SSL_CTX_new(TLS_method()));
  if (!context || SSL_CTX_use_certificate(context.get(), chain.front().get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), own.get()) != 1)
    throw qel::ZU_Exception(cert.name + " and " + key.name + " cannot be used for TLS (" +
                            errors.cause() + "); issue a certificate that can");
}

}  // namespace tolvar
