#include "service/iso_countries.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "service/address_text.h"
#include "service/import_error.h"

namespace tolvar::service {
namespace {

struct ExtraCode {
  const char* code;
  std::int64_t id;
  const char* name;
};

/// What address registries write besides ISO 3166-1. The numbers are part of stored tables: never
/// change one, add at the end.
constexpr std::array<ExtraCode, 6> kExtraCodes{{
    {"??", 900, "Unknown"},
    {"AN", 901, "Netherlands Antilles"},
    {"AP", 902, "Asia/Pacific region"},
    {"CS", 903, "Serbia and Montenegro"},
    {"EU", 904, "European Union"},
    {"UK", 905, "United Kingdom"},
}};

bool isCapital(char c) { return c >= 'A' && c <= 'Z'; }

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (isCapital(c)) c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

[[noreturn]] void fail(const std::string& path, const std::string& message) {
  throw ImportError({ImportNote{path, 0, 0, message}});
}

nlohmann::json readJson(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const int error = errno;
  if (!file.is_open() || !file.good() || file.peek() == std::ifstream::traits_type::eof()) {
    fail(path, "cannot read the country list (" +
                   (file.is_open() ? "nothing can be read from it"
                                   : std::generic_category().message(error)) +
                   "); install the package iso-codes or name another file");
  }
  try {
    return nlohmann::json::parse(file);
  } catch (const nlohmann::json::exception& fault) {
    fail(path, std::string("the country list is not JSON: ") + fault.what());
  }
}

}  // namespace

IsoCountries IsoCountries::load(const std::string& path) {
  IsoCountries countries;
  const nlohmann::json root = readJson(path);
  try {
    for (const nlohmann::json& entry : root.at("3166-1")) {
      const auto number = entry.at("numeric").get<std::string>();
      const std::size_t firstDigit = std::min(number.find_first_not_of('0'), number.size());
      const auto id = parseNumber(std::string_view(number).substr(firstDigit), 899);
      if (!id) throw std::runtime_error("numeric code " + number + " is not between 001 and 899");
      const auto name = entry.at("name").get<std::string>();
      countries._names[*id] = name;
      countries.addName(*id, name);
      countries._byCode.emplace(entry.at("alpha_2").get<std::string>(), *id);
      countries._byCode.emplace(entry.at("alpha_3").get<std::string>(), *id);
      for (const char* key : {"common_name", "official_name"}) {
        if (entry.contains(key)) countries.addName(*id, entry.at(key).get<std::string>());
      }
    }
  } catch (const std::exception& fault) {
    fail(path, std::string("the country list is not in the form of iso-codes: ") + fault.what());
  }
  // Last, so that a name that ISO knows keeps its meaning there.
  for (const ExtraCode& extra : kExtraCodes) {
    countries._names[extra.id] = extra.name;
    countries._byCode.emplace(extra.code, extra.id);
    countries.addName(extra.id, extra.name);
  }
  return countries;
}

void IsoCountries::addName(std::int64_t id, const std::string& name) {
  _byName.emplace(lower(name), id);
}

std::optional<Country> IsoCountries::findCode(std::string_view code) const {
  const auto known = _byCode.find(std::string(code));
  if (known != _byCode.end()) return Country{known->second, _names.at(known->second), true, true};
  if (code.size() != 2 || !isCapital(code[0]) || !isCapital(code[1])) return std::nullopt;
  return Country{kFirstUnlistedCountry + 26 * (code[0] - 'A') + (code[1] - 'A'), std::string(code),
                 true, false};
}

std::optional<Country> IsoCountries::find(std::string_view text) const {
  if (auto country = findCode(text)) return country;
  const auto known = _byName.find(lower(text));
  if (known == _byName.end()) return std::nullopt;
  return Country{known->second, _names.at(known->second), false, true};
}

std::optional<std::string> IsoCountries::codeOf(std::int64_t id) const {
  for (const auto& [code, number] : _byCode) {
    if (number == id && code.size() == 2) return code;
  }
  return std::nullopt;
}

}  // namespace tolvar::service
