#include "src/copy_names.h"

#include <cstring>

#include "src/index/tuple_names.h"

namespace tolvar {
namespace {

#ifdef __cpp_lib_string_resize_and_overwrite

/// Bytes that every string has room for without asking for memory, and bytes that a string has room
/// for once it held a name that is longer.
constexpr std::size_t kShort = TupleNames::kShortName;
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
  // No string has less room than an empty one; known, this saves a comparison.
  if (out->capacity() < kShort) __builtin_unreachable();
  out->resize_and_overwrite(kBytes, [name](char* text, std::size_t) {
    std::memcpy(text, name.data(), kBytes + 1);  // over the terminating zero, which comes back
    return name.size();
  });
}

/// Where all names are short, a copy is a few instructions. Where some are not, a name is copied
/// with what follows it, as much as the string has room for, and cut off then: how long names are
/// is nothing a processor could guess, and each wrong guess would cost more than the whole copy.
/// How much room a string has stays the same from answer to answer.
[[gnu::always_inline]] inline void assign(std::string_view name, bool mayBeLong, std::string* out) {
  if (!mayBeLong) [[likely]]
    return overwrite<kShort>(name, out);
  // Told apart, or the compiler would ask for the room before it knows whether it matters.
  __asm__("" : "+r"(out));
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
void assign(std::string_view name, bool, std::string* out) {
  if (name.size() == out->size()) {
    name.copy(out->data(), name.size());
  } else {
    out->assign(name);
  }
}

#endif

/// Copies name `kName`, which begins at `*begin`, and moves `*begin` to its end. A number of the
/// caller's own tells where a name begins: read again where the name before it ends, it would have
/// to be read from memory, which the text just written could have changed for all a compiler knows.
template <std::size_t kName>
[[gnu::always_inline]] inline void copyName(const char* text, const std::uint8_t* ends,
                                            unsigned longNames, std::size_t* begin,
                                            std::string* out) {
  const std::size_t end = ends[kName];
  assign({text + *begin, end - *begin}, (longNames & 1u << kName) != 0, out);
  *begin = end;
}

void copyApart(const IPNameView& names, IPHumanMessage* msg) {
  msg->m_country = names.country();
  msg->m_province = names.province();
  msg->m_city = names.city();
  msg->m_district = names.district();
  msg->m_extend = names.extend();
  msg->m_oper = names.oper();
  msg->m_nettype = names.nettype();
  msg->m_apn = names.apn();
  msg->m_flable = names.flable();
}

}  // namespace

void copyNames(const TupleNames& names, std::uint32_t tuple, IPHumanMessage* msg) {
  const IPNameView::Ends& ends = names._ends[tuple];
  if (ends.apart != 0) [[unlikely]]
    return copyApart(names.row(tuple), msg);
  const char* const text = names.text(tuple);
  const unsigned longNames = names._longNames;
  std::size_t begin = 0;
  copyName<0>(text, ends.of, longNames, &begin, &msg->m_country);
  copyName<1>(text, ends.of, longNames, &begin, &msg->m_province);
  copyName<2>(text, ends.of, longNames, &begin, &msg->m_city);
  copyName<3>(text, ends.of, longNames, &begin, &msg->m_district);
  copyName<4>(text, ends.of, longNames, &begin, &msg->m_extend);
  copyName<5>(text, ends.of, longNames, &begin, &msg->m_oper);
  copyName<6>(text, ends.of, longNames, &begin, &msg->m_nettype);
  copyName<7>(text, ends.of, longNames, &begin, &msg->m_apn);
  copyName<8>(text, ends.of, longNames, &begin, &msg->m_flable);
}

}  // namespace tolvar
