#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tolvar::wire {

/// How often a field may occur in a message; in sub-messages, in all of them together.
struct FieldLimit {
  /// What an occurrence of the field holds.
  enum class Content : std::uint8_t {
    Single,   ///< one element
    Numbers,  ///< one number, or many when it is packed; each is an element
    Message,  ///< one element, and the fields that `inside` is for
  };

  std::uint32_t number = 0;  ///< in the contract
  const char* name = "";
  std::size_t most = 0;
  Content content = Content::Single;
  std::span<const FieldLimit> inside = {};
};

/// What a message may hold at most.
struct MessageLimits {
  std::span<const FieldLimit> fields = {};
  /// Fields that `fields` does not name, those of sub-messages included: the single ones, and
  /// those that only a newer contract knows.
  std::size_t others = 0;
};

/// Walks the fields of an encoded message and takes no memory for them. A parser takes some hundred
/// bytes for an element that is two bytes on the wire, so that a message whose size is within
/// bounds can still fill the memory; this must be asked before it.
///
/// Throws WireError when a field occurs more often than its limit. False when the bytes cannot be
/// walked to their end: then no parser accepts them; it may also refuse what this walked. Pure,
/// callable from any thread.
bool checkFieldCounts(std::span<const std::uint8_t> message, const MessageLimits& limits);

}  // namespace tolvar::wire
