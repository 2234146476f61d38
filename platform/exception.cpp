#include "platform/exception.h"

#include <system_error>

namespace qel {

ZU_Exception::ZU_Exception(const std::string& message, int err)
    : _message(message + " (errno " + std::to_string(err) + ": " +
               std::generic_category().message(err) + ")"),
      _code(err) {}

}  // namespace qel
