#include "transport/grpc/tls_files.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <utility>

#include "platform/exception.h"
#include "transport/grpc/pem_check.h"

namespace tolvar {
namespace {

constexpr std::size_t kMaxPemBytes = 1048576;

/// A file of at most kMaxPemBytes.
std::string readText(const std::string& name, const std::string& path) {
  // One that is written by whoever reads it would hold up the reader, now or at the next look.
  std::error_code ignored;
  if (std::filesystem::exists(path, ignored) && !std::filesystem::is_regular_file(path, ignored))
    throw qel::ZU_Exception(name + " is no regular file, but is read again and again; give one");
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  if (!in) throw qel::ZU_Exception("cannot read " + name, errno);
  std::string text(kMaxPemBytes + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad()) throw qel::ZU_Exception("cannot read " + name, errno);
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kMaxPemBytes)
    throw qel::ZU_Exception(name + " is larger than " + std::to_string(kMaxPemBytes) +
                            " bytes; give only the certificates that are needed");
  return text;
}

PemFile readPem(const std::string& role, const std::string& path) {
  const std::string name = "the " + role + " file " + path;
  return {name, readText(name, path)};
}

TlsTexts readTexts(const GrpcTlsFiles& files) {
  if (files.certFile.empty() != files.keyFile.empty())
    throw qel::ZU_Exception("a certificate and its key must be given together");
  TlsTexts texts;
  if (!files.caFile.empty()) {
    PemFile ca = readPem("CA", files.caFile);
    checkCertificates(ca);
    texts.ca = std::move(ca.text);
  }
  if (!files.certFile.empty()) {
    PemFile cert = readPem("certificate", files.certFile);
    PemFile key = readPem("key", files.keyFile);
    checkPair(cert, key);
    texts.cert = std::move(cert.text);
    texts.key = std::move(key.text);
  }
  return texts;
}

}  // namespace

TlsFiles::TlsFiles(GrpcTlsFiles files)
    : _files(std::move(files)), _texts(std::make_shared<TlsTexts>(readTexts(_files))) {}

std::chrono::seconds TlsFiles::interval() const noexcept {
  return std::max(std::chrono::seconds(1), _files.reloadInterval);
}

bool TlsFiles::look() {
  std::shared_ptr<const TlsTexts> found;
  std::string refusal;
  try {
    found = std::make_shared<TlsTexts>(readTexts(_files));
  } catch (const std::exception& error) {
    refusal = error.what();
  }
  const std::lock_guard lock(_mutex);
  const bool isNew = found && *found != *_texts;
  if (isNew) _texts = std::move(found);
  return std::exchange(_refusal, refusal) != refusal || isNew;
}

std::shared_ptr<const TlsTexts> TlsFiles::texts() const {
  const std::lock_guard lock(_mutex);
  return _texts;
}

std::string TlsFiles::refusal() const {
  const std::lock_guard lock(_mutex);
  return _refusal;
}

}  // namespace tolvar
