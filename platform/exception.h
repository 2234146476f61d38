#pragma once

#include <exception>
#include <string>

namespace qel {

/// Base of every exception that the platform layer and the remote proxies throw.
/// Immutable after construction, so it may be read from any thread.
class ZU_Exception : public std::exception {
 public:
  explicit ZU_Exception(std::string message) : _message(std::move(message)) {}

  /// `err` is an errno value. Its text is appended to `message` as " (errno N: text)".
  ZU_Exception(const std::string& message, int err);

  const char* what() const noexcept override { return _message.c_str(); }

  /// errno value given at construction, 0 when there was none.
  int getErrCode() const noexcept { return _code; }

 private:
  std::string _message;
  int _code = 0;
};

}  // namespace qel
