#include "service/import_guard.h"

#include <algorithm>
#include <array>
#include <map>
#include <unordered_set>
#include <utility>

#include "service/address_text.h"
#include "service/name_table.h"

namespace tolvar::service {
namespace {

/// Ids that an objection names one by one.
constexpr std::size_t kShownIds = 3;

TableExtent extentOf(const TableVersion& table) {
  return {table.ranges().size(), addressesOf(table.ranges()), table.codes().size()};
}

/// Items of `a` without an equal one in `b`; both are sorted.
template <class T>
std::uint64_t countMissing(const std::vector<T>& a, const std::vector<T>& b) {
  std::uint64_t missing = 0;
  auto other = b.begin();
  for (const T& item : a) {
    while (other != b.end() && *other < item) ++other;
    if (other == b.end() || item < *other)
      ++missing;
    else
      ++other;
  }
  return missing;
}

/// "12.5", rounded up, so that what is above a limit never looks like the limit itself.
std::string percentLost(std::uint64_t before, std::uint64_t after) {
  const std::uint64_t tenths = ((before - after) * 1000 + before - 1) / before;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

void objectToLoss(const char* what, std::uint64_t before, std::uint64_t after,
                  std::vector<std::string>& objections) {
  constexpr std::uint64_t kKeptPercent = 100 - kMaxLossPercent;
  if (after * 100 >= before * kKeptPercent) return;
  objections.push_back("it has " + percentLost(before, after) + " % fewer " + what +
                       " than the version served: " + grouped(after) + " instead of " +
                       grouped(before) + " (at most " + std::to_string(kMaxLossPercent) +
                       " % may go)");
}

/// Finds the ids that ranges use and no code entry names.
class MissingCodes {
 public:
  explicit MissingCodes(const TableVersion& table) {
    for (const ravel::CodeInfo& code : table.codes())
      _known[index(static_cast<CodeType>(code.codeType))].insert(code.ID);
    for (const ravel::IPProperty& range : table.ranges()) look(range);
  }

  void objectTo(std::vector<std::string>& objections) const {
    if (_missing.empty()) return;
    std::string text = "its ranges use " + grouped(_missing.size()) +
                       (_missing.size() == 1 ? " id" : " ids") + " that no code entry names: ";
    std::size_t shown = 0;
    for (const auto& [key, start] : _missing) {
      if (shown == kShownIds) {
        text += " and more";
        break;
      }
      if (shown++ != 0) text += ", ";
      text += std::string(kindName(key.first)) + " " + std::to_string(key.second) +
              " (from address " + formatIPv4(start) + " on)";
    }
    objections.push_back(text);
  }

 private:
  static std::size_t index(CodeType type) {
    const auto number = static_cast<std::size_t>(type);
    return number < 9 ? number : 0;
  }

  void look(const ravel::IPProperty& range) {
    if (range.place != _lastPlace) {
      lookPlace(range);
      _lastPlace = range.place;
    }
    look(CodeType::Extend, range.extend, range.startIP);
    look(CodeType::Oper, range.oper, range.startIP);
    look(CodeType::Nettype, range.nettype, range.startIP);
    look(CodeType::Apn, range.apn, range.startIP);
  }

  /// A level whose own three digits are zero is left open.
  void lookPlace(const ravel::IPProperty& range) {
    std::int64_t id = range.place;
    for (const CodeType type : {CodeType::District, CodeType::City, CodeType::Province}) {
      if (id % 1000 != 0) look(type, id, range.startIP);
      id /= 1000;
    }
    look(CodeType::Country, id, range.startIP);
  }

  void look(CodeType type, std::int64_t id, std::uint32_t start) {
    if (id != 0 && !_known[index(type)].contains(id)) _missing.try_emplace({type, id}, start);
  }

  std::array<std::unordered_set<std::int64_t>, 9> _known;
  std::map<std::pair<CodeType, std::int64_t>, std::uint32_t> _missing;
  std::int64_t _lastPlace = 0;
};

}  // namespace

std::uint64_t addressesOf(const std::vector<ravel::IPProperty>& ranges) noexcept {
  std::uint64_t addresses = 0;
  for (const ravel::IPProperty& range : ranges)
    addresses += std::uint64_t{range.endIP} - range.startIP + 1;
  return addresses;
}

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t i = text.size(); i > 3; i -= 3) text.insert(i - 3, ",");
  return text;
}

ImportComparison compareImport(const TableVersion* served, const TableVersion& next) {
  ImportComparison result;
  result.next = extentOf(next);
  static const TableVersion kNothing(TableData{}, 1);
  const TableVersion& before = served != nullptr ? *served : kNothing;
  if (served != nullptr) result.served = extentOf(*served);
  result.rangesAdded = countMissing(next.ranges(), before.ranges());
  result.rangesRemoved = countMissing(before.ranges(), next.ranges());
  result.codesAdded = countMissing(next.codes(), before.codes());
  result.codesRemoved = countMissing(before.codes(), next.codes());
  if (next.ranges().empty()) {
    result.objections.push_back("it is empty: every client would forget all it knows");
  } else if (served != nullptr) {
    objectToLoss("ranges", result.served->ranges, result.next.ranges, result.objections);
    objectToLoss("addresses", result.served->addresses, result.next.addresses, result.objections);
  }
  MissingCodes(next).objectTo(result.objections);
  return result;
}

}  // namespace tolvar::service
