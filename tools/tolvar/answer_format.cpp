#include "tools/tolvar/answer_format.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/tolvar/address_class.h"

namespace tolvar::tools {
namespace {

using Json = nlohmann::ordered_json;

/// Longest dotted quad, so that answers line up.
constexpr std::size_t kAddressWidth = 15;

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

/// The name, or the number of an id that the code tables do not name; empty without an id.
std::string nameOrId(const std::string& name, std::int64_t id) {
  if (!name.empty()) return printable(name);
  return id != 0 ? "#" + std::to_string(id) : std::string();
}

std::string placeOf(const Answer& answer) {
  const ravel::IPInfo& ids = answer.ids;
  // A level that the table leaves open has an id that ends in 000 and no name.
  const auto level = [](const std::string& name, std::int64_t id) {
    return id % 1000 == 0 ? printable(name) : nameOrId(name, id);
  };
  std::string place = nameOrId(answer.names.m_country, ids.country);
  for (const std::string& part :
       {level(answer.names.m_province, ids.province), level(answer.names.m_city, ids.city),
        level(answer.names.m_district, ids.district)}) {
    if (!part.empty()) place += (place.empty() ? "" : " / ") + part;
  }
  return place.empty() ? "(no place given)" : place;
}

void addDetail(std::string* line, const char* key, const std::string& value) {
  if (!value.empty()) *line += std::string("  ") + key + "=" + value;
}

Json idAndName(std::int64_t id, const std::string& name) { return {{"id", id}, {"name", name}}; }

}  // namespace

std::string formatLine(const Answer& answer) {
  if (!answer.problem.empty()) return answer.problem;
  std::string line = printable(answer.text);
  line.resize(std::max(line.size(), kAddressWidth), ' ');
  line += "  ";
  if (answer.kind == Answer::Kind::NotAnAddress) {
    return line + "is not an IPv4 address: expected four numbers from 0 to 255, such as 192.0.2.17";
  }
  const char* const special = specialAddressKind(answer.ip);
  if (answer.kind == Answer::Kind::NotFound) {
    return line + "not found: " + (special != nullptr ? special : "no range of the table holds it");
  }
  line += placeOf(answer);
  addDetail(&line, "operator", nameOrId(answer.names.m_oper, answer.ids.oper));
  addDetail(&line, "network", nameOrId(answer.names.m_nettype, answer.ids.nettype));
  addDetail(&line, "access-point", nameOrId(answer.names.m_apn, answer.ids.apn));
  addDetail(&line, "extension", nameOrId(answer.names.m_extend, answer.ids.extend));
  addDetail(&line, "source", nameOrId(answer.names.m_flable, answer.ids.flable));
  if (special != nullptr) line += std::string("  (") + special + ")";
  return line;
}

std::string formatJson(const Answer& answer) {
  Json json;
  json["address"] = answer.problem.empty() ? Json(answer.text) : Json();
  json["valid"] = answer.kind != Answer::Kind::NotAnAddress;
  json["found"] = answer.kind == Answer::Kind::Found;
  if (!answer.problem.empty()) json["problem"] = answer.problem;
  if (answer.kind != Answer::Kind::NotAnAddress) {
    if (const char* const special = specialAddressKind(answer.ip)) json["special"] = special;
  }
  if (answer.kind == Answer::Kind::Found) {
    json["country"] = idAndName(answer.ids.country, answer.names.m_country);
    json["province"] = idAndName(answer.ids.province, answer.names.m_province);
    json["city"] = idAndName(answer.ids.city, answer.names.m_city);
    json["district"] = idAndName(answer.ids.district, answer.names.m_district);
    json["extend"] = idAndName(answer.ids.extend, answer.names.m_extend);
    json["oper"] = idAndName(answer.ids.oper, answer.names.m_oper);
    json["nettype"] = idAndName(answer.ids.nettype, answer.names.m_nettype);
    json["apn"] = idAndName(answer.ids.apn, answer.names.m_apn);
    json["flable"] = idAndName(answer.ids.flable, answer.names.m_flable);
  }
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tolvar::tools
