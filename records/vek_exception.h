#pragma once

#include <stdexcept>
#include <string>

namespace qel {

/// Root of the failures of the tagged encoding.
class VekException : public std::runtime_error {
 public:
  explicit VekException(const std::string& message) : std::runtime_error(message) {}
  ~VekException() override = default;
};

/// The bytes cannot be read as the record asked for.
class VekDecodeException : public VekException {
 public:
  explicit VekDecodeException(const std::string& message) : VekException(message) {}
  ~VekDecodeException() override = default;
};

/// A field has a type that the reader cannot turn into the wanted one.
class VekDecodeMismatch : public VekDecodeException {
 public:
  explicit VekDecodeMismatch(const std::string& message) : VekDecodeException(message) {}
  ~VekDecodeMismatch() override = default;
};

/// A length or a depth is outside what the encoding allows.
class VekDecodeInvalidValue : public VekDecodeException {
 public:
  explicit VekDecodeInvalidValue(const std::string& message) : VekDecodeException(message) {}
  ~VekDecodeInvalidValue() override = default;
};

/// A required field is absent.
class VekDecodeRequireNotExist : public VekDecodeException {
 public:
  explicit VekDecodeRequireNotExist(const std::string& message) : VekDecodeException(message) {}
  ~VekDecodeRequireNotExist() override = default;
};

}  // namespace qel
