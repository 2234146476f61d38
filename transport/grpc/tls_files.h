#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// What the files of an encrypted connection hold. The transport can use it: with texts that it
/// cannot it fails all connections, or ends the process.
struct TlsTexts {
  std::string ca;    ///< empty without a CA file
  std::string cert;  ///< empty without a certificate file, as is `key`
  std::string key;

  bool operator==(const TlsTexts&) const = default;
};

/// The files of an encrypted connection, and what they held when they could last be used.
/// Certificate and key change together. All operations may be called from any thread.
class TlsFiles {
 public:
  /// Reads the files. Throws ZU_Exception when one cannot be used: which file, what is wrong, what
  /// to do.
  explicit TlsFiles(GrpcTlsFiles files);

  TlsFiles(const TlsFiles&) = delete;
  TlsFiles& operator=(const TlsFiles&) = delete;

  /// `reloadInterval` of the files, 1 s or more.
  std::chrono::seconds interval() const noexcept;

  /// Reads the files again; when one cannot be used, the texts stay as they are. Answers whether
  /// the texts or the refusal have changed.
  bool look();

  std::shared_ptr<const TlsTexts> texts() const;

  /// Why the files as they were at the last look are not used; empty when they are.
  std::string refusal() const;

 private:
  const GrpcTlsFiles _files;
  mutable std::mutex _mutex;
  // Guarded by _mutex.
  std::shared_ptr<const TlsTexts> _texts;
  std::string _refusal;
};

}  // namespace tolvar
