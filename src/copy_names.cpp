#include "src/copy_names.h"

#include <cstring>

#include "src/index/tuple_names.h"

namespace tolvar {
namespace {

#ifdef __cpp_lib_string_resize_and_overwrite

/// Bytes that every string has room for without asking for memory.
constexpr std::size_t kShort = 15;
static_assert(kShort <= TupleNames::kReadableBytes);

/// Out of the way of the short names, whose copies then need no call.
[[gnu::noinline]] void assignLong(std::string_view name, std::string* out) { out->assign(name); }

/// A short name is copied with what follows it and cut off then: how long names are is nothing a
/// processor could guess, and each wrong guess would cost more than the whole copy.
[[gnu::always_inline]] inline void assign(std::string_view name, std::string* out) {
  if (name.size() > kShort) [[unlikely]] {
    assignLong(name, out);
    return;
  }
  out->resize_and_overwrite(kShort, [name](char* text, std::size_t) {
    std::memcpy(text, name.data(), kShort);
    return name.size();
  });
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
  assign(names.country(), &msg->m_country);
  assign(names.province(), &msg->m_province);
  assign(names.city(), &msg->m_city);
  assign(names.district(), &msg->m_district);
  assign(names.extend(), &msg->m_extend);
  assign(names.oper(), &msg->m_oper);
  assign(names.nettype(), &msg->m_nettype);
  assign(names.apn(), &msg->m_apn);
  assign(names.flable(), &msg->m_flable);
}

}  // namespace tolvar
