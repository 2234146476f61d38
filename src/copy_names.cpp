#include "src/copy_names.h"

#include <cstring>

#include "src/index/tuple_names.h"

namespace tolvar {
namespace {

#ifdef __cpp_lib_string_resize_and_overwrite

/// Bytes that every string has room for without asking for memory, and bytes that a string has room
/// for once it held a name that is longer.
constexpr std::size_t kShort = 15;
constexpr std::size_t kRoomy = 31;
#ifndef __clang__  // for which this is no constant, with the same library
static_assert(std::string().capacity() >= kShort);
#endif
static_assert(kRoomy < TupleNames::kReadableBytes);

/// Out of the way of the other names, whose copies then need no call.
[[gnu::noinline]] void assignLong(std::string_view name, std::string* out) {
  out->reserve(kRoomy);
  out->assign(name);
}

template <std::size_t kBytes>
[[gnu::always_inline]] inline void overwrite(std::string_view name, std::string* out) {
  out->resize_and_overwrite(kBytes, [name](char* text, std::size_t) {
    std::memcpy(text, name.data(), kBytes + 1);  // over the terminating zero, which comes back
    return name.size();
  });
}

/// A name is copied with what follows it, as much as the string has room for, and cut off then: how
/// long names are is nothing a processor could guess, and each wrong guess would cost more than the
/// whole copy. How much room a string has stays the same from answer to answer.
[[gnu::always_inline]] inline void assign(std::string_view name, std::string* out) {
  // No string has less room than an empty one; known, this saves a comparison.
  if (out->capacity() < kShort) __builtin_unreachable();
  if (out->capacity() < kRoomy) [[likely]] {
    if (name.size() <= kShort) [[likely]]
      return overwrite<kShort>(name, out);
  } else if (name.size() <= kRoomy) [[likely]] {
    return overwrite<kRoomy>(name, out);
  }
  assignLong(name, out);
}

#else

/// Neighbouring answers often have names of the same length, and then the string's own bookkeeping
/// can be left alone.
void assign(std::string_view name, std::string* out) {
  if (name.size() == out->size()) {
    name.copy(out->data(), name.size());
  } else {
    out->assign(name);
  }
}

#endif

}  // namespace

void copyNames(const IPNameView& names, IPHumanMessage* msg) {
  if (names._ends.apart != 0) [[unlikely]] {
    msg->m_country = names.country();
    msg->m_province = names.province();
    msg->m_city = names.city();
    msg->m_district = names.district();
    msg->m_extend = names.extend();
    msg->m_oper = names.oper();
    msg->m_nettype = names.nettype();
    msg->m_apn = names.apn();
    msg->m_flable = names.flable();
    return;
  }
  // Apart from the view, which written text could otherwise change, for all a compiler knows.
  const char* const text = names._text;
  assign(names.nameIn<0>(text), &msg->m_country);
  assign(names.nameIn<1>(text), &msg->m_province);
  assign(names.nameIn<2>(text), &msg->m_city);
  assign(names.nameIn<3>(text), &msg->m_district);
  assign(names.nameIn<4>(text), &msg->m_extend);
  assign(names.nameIn<5>(text), &msg->m_oper);
  assign(names.nameIn<6>(text), &msg->m_nettype);
  assign(names.nameIn<7>(text), &msg->m_apn);
  assign(names.nameIn<8>(text), &msg->m_flable);
}

}  // namespace tolvar
