#include "tools/tolvard/conf_fields.h"

#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "service/text_source.h"
#include "transport/grpc/wire_limits.h"

namespace tolvar::tools {
namespace {

constexpr std::int32_t kMostSamples = 10000;

[[noreturn]] void refuse(const std::string& field, std::string_view value,
                         const std::string& expected) {
  throw std::invalid_argument(field + ": " + service::quoted(value) + " will not do; expected " +
                              expected);
}

bool flagOf(const std::string& field, std::string_view value) {
  if (value == "true" || value == "on" || value == "1") return true;
  if (value == "false" || value == "off" || value == "0") return false;
  refuse(field, value, "true or false");
}

std::int32_t numberOf(const std::string& field, std::string_view value, std::int32_t largest) {
  std::int32_t number = 0;
  const auto [stop, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || stop != value.data() + value.size() || number < 0 || number > largest)
    refuse(field, value, "a number from 0 to " + std::to_string(largest));
  return number;
}

std::vector<std::string> listOf(const std::string& field, std::string_view value) {
  std::vector<std::string> names;
  if (value.starts_with('[')) {
    try {
      names = nlohmann::json::parse(value).get<std::vector<std::string>>();
    } catch (const nlohmann::json::exception&) {
      refuse(field, value, "a JSON array of texts");
    }
  } else {
    while (!value.empty()) {
      const std::size_t comma = std::min(value.find(','), value.size());
      names.emplace_back(service::trimmed(value.substr(0, comma)));
      value.remove_prefix(std::min(comma + 1, value.size()));
    }
  }
  for (const std::string& name : names) {
    if (name.empty() || name.size() > wire::kMaxNameBytes || !service::isUtf8(name))
      refuse(field, name,
             "names of 1 to " + std::to_string(wire::kMaxNameBytes) + " bytes of UTF-8");
  }
  if (names.size() > wire::kMaxConfCitys)
    refuse(field, std::to_string(names.size()) + " names",
           "at most " + std::to_string(wire::kMaxConfCitys));
  return names;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> confFields(const ravel::ClientConf& conf) {
  const auto flag = [](bool value) { return std::string(value ? "true" : "false"); };
  const auto cities = nlohmann::json(conf.simpleLogCitys)
                          .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return {{"statisOpen", flag(conf.statisOpen)},
          {"simpleLogCitys", cities},
          {"simplingRate", std::to_string(conf.simplingRate)},
          {"logBufferLimit", std::to_string(conf.logBufferLimit)},
          {"logUnknownIp", flag(conf.logUnknownIp)},
          {"confVersion", std::to_string(conf.confVersion)}};
}

void setConfField(ravel::ClientConf& conf, const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos)
    throw std::invalid_argument(service::quoted(assignment) + ": expected FIELD=VALUE");
  const std::string field = assignment.substr(0, equals);
  const std::string_view value = std::string_view(assignment).substr(equals + 1);
  if (field == "statisOpen") {
    conf.statisOpen = flagOf(field, value);
  } else if (field == "simpleLogCitys") {
    conf.simpleLogCitys = listOf(field, value);
  } else if (field == "simplingRate") {
    conf.simplingRate = numberOf(field, value, kMostSamples);
  } else if (field == "logBufferLimit") {
    conf.logBufferLimit = numberOf(field, value, INT32_MAX);
  } else if (field == "logUnknownIp") {
    conf.logUnknownIp = flagOf(field, value);
  } else if (field == "confVersion") {
    throw std::invalid_argument("confVersion cannot be set; it rises when another field changes");
  } else {
    throw std::invalid_argument(service::quoted(field) +
                                " is no field; expected statisOpen, simpleLogCitys, simplingRate, "
                                "logBufferLimit or logUnknownIp");
  }
}

}  // namespace tolvar::tools
