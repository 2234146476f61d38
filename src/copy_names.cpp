#include "src/copy_names.h"

#include <cstring>

#include "src/index/tuple_names.h"

namespace tolvar {
namespace {

#ifdef __cpp_lib_string_resize_and_overwrite

/// Bytes that every string has room for without asking for memory, and bytes that a string gets
/// room for where a name may be longer.
constexpr std::size_t kShort = MessageRows::kShortName;
constexpr std::size_t kRoomy = MessageRows::kLongName;
#ifndef __clang__  // for which this is no constant, with the same library
static_assert(std::string().capacity() >= kShort);
#endif
static_assert(kRoomy < TupleNames::kReadableBytes);

/// `length` is at most kBytes, and `*out` has room for kBytes.
template <std::size_t kBytes>
[[gnu::always_inline]] inline void overwrite(const char* name, std::size_t length,
                                             std::string* out) {
  // No string has less room than an empty one; known, this saves a comparison.
  if (out->capacity() < kShort) __builtin_unreachable();
  out->resize_and_overwrite(kBytes, [name, length](char* text, std::size_t) {
    std::memcpy(text, name, kBytes + 1);  // over the terminating zero, which comes back
    return length;
  });
}

/// Copies name `kName` of a complete row. False when the string has no room for long names and may
/// need it. A name is copied with what follows it, as much as the string has room for, and cut off
/// then. How long names are is nothing a processor could guess, and each wrong guess would cost
/// more than the whole copy; how much room a string has stays the same from answer to answer.
template <std::size_t kName>
[[gnu::always_inline]] inline bool copyName(const MessageRows::Row& row, unsigned longNames,
                                            std::string* out) {
  if ((longNames & 1u << kName) == 0) [[likely]] {
    const MessageRows::Name name = MessageRows::name<kName, false>(row);
    overwrite<kShort>(name.text, name.length, out);
    return true;
  }
  // Told apart, or the compiler would ask for the room before it knows whether it matters.
  __asm__("" : "+r"(out));
  if (out->capacity() < kRoomy) [[unlikely]]
    return false;
  const MessageRows::Name name = MessageRows::name<kName, true>(row);
  overwrite<kRoomy>(name.text, name.length, out);
  return true;
}

/// A string that may have to hold a long name gets room for one, and the next copy is simple.
/// `name` comes from a TupleNames, and is longer than kShort only where `mayBeLong`.
void assign(std::string_view name, bool mayBeLong, std::string* out) {
  if (mayBeLong && out->capacity() < kRoomy) out->reserve(kRoomy);
  if (name.size() <= kShort) {
    overwrite<kShort>(name.data(), name.size(), out);
  } else if (name.size() <= kRoomy) {
    overwrite<kRoomy>(name.data(), name.size(), out);
  } else {
    out->assign(name);
  }
}

[[gnu::always_inline]] inline bool copySimply(const TupleNames& names, std::uint32_t tuple,
                                              IPHumanMessage* msg) {
  const MessageRows::Row row = names.messages().row(tuple);
  const unsigned longNames = names.messages().longNames();
  return MessageRows::complete(row) && copyName<0>(row, longNames, &msg->m_country) &&
         copyName<1>(row, longNames, &msg->m_province) &&
         copyName<2>(row, longNames, &msg->m_city) &&
         copyName<3>(row, longNames, &msg->m_district) &&
         copyName<4>(row, longNames, &msg->m_extend) && copyName<5>(row, longNames, &msg->m_oper) &&
         copyName<6>(row, longNames, &msg->m_nettype) && copyName<7>(row, longNames, &msg->m_apn) &&
         copyName<8>(row, longNames, &msg->m_flable);
}

#else

/// Neighbouring answers often have names of the same length, and then the string's own bookkeeping
/// can be left alone.
void assign(std::string_view name, bool, std::string* out) {
  if (name.size() == out->size()) {
    name.copy(out->data(), name.size());
  } else {
    out->assign(name);
  }
}

bool copySimply(const TupleNames&, std::uint32_t, IPHumanMessage*) { return false; }

#endif

/// Any names, into any strings. Apart from the simple copy, which then calls nothing and need not
/// keep registers for others.
[[gnu::noinline]] void copyAny(const TupleNames& names, std::uint32_t tuple, IPHumanMessage* msg) {
  const IPNameView view = names.row(tuple);
  const auto mayBeLong = [longNames = names.messages().longNames()](int name) {
    return (longNames >> name & 1u) != 0;
  };
  assign(view.country(), mayBeLong(0), &msg->m_country);
  assign(view.province(), mayBeLong(1), &msg->m_province);
  assign(view.city(), mayBeLong(2), &msg->m_city);
  assign(view.district(), mayBeLong(3), &msg->m_district);
  assign(view.extend(), mayBeLong(4), &msg->m_extend);
  assign(view.oper(), mayBeLong(5), &msg->m_oper);
  assign(view.nettype(), mayBeLong(6), &msg->m_nettype);
  assign(view.apn(), mayBeLong(7), &msg->m_apn);
  assign(view.flable(), mayBeLong(8), &msg->m_flable);
}

}  // namespace

void copyNames(const TupleNames& names, std::uint32_t tuple, IPHumanMessage* msg) {
  if (!copySimply(names, tuple, msg)) [[unlikely]]
    copyAny(names, tuple, msg);
}

}  // namespace tolvar
