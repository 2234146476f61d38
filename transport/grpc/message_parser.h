#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include "transport/grpc/field_counts.h"
#include "transport/grpc/message_limits.h"
#include "transport/grpc/page_codec.h"

namespace tolvar::wire {

/// Builds `message` from received bytes, once it is known to hold no more than it may: see
/// checkFieldCounts. Throws WireError, with `message` unspecified, when it holds more or the bytes
/// are none. Any thread.
template <class Message>
void parseBounded(std::span<const std::uint8_t> bytes, Message& message) {
  if (!checkFieldCounts(bytes, kLimitsOf<Message>) ||
      bytes.size() > std::numeric_limits<int>::max() ||
      !message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
    throw WireError("it is not a " + std::string(message.GetTypeName()));
}

}  // namespace tolvar::wire
