#include "service/id_registry.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace tolvar::service {
namespace {

void appendEscaped(std::string& out, std::string_view name) {
  for (const char c : name) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
}

std::optional<std::string> unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case '\\': out += '\\'; break;
      case 't': out += '\t'; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      default: return std::nullopt;
    }
  }
  return out;
}

/// Cuts the text up to the next tab (or the end) off `line` and reads it as a number.
std::optional<std::int64_t> takeNumber(std::string_view& line) {
  const std::size_t tab = line.find('\t');
  if (tab == std::string_view::npos) return std::nullopt;
  std::int64_t value = 0;
  const auto [stop, error] = std::from_chars(line.data(), line.data() + tab, value);
  if (error != std::errc() || stop != line.data() + tab || value < 0) return std::nullopt;
  line.remove_prefix(tab + 1);
  return value;
}

void restoreLine(IdRegistry& registry, std::string_view line) {
  const auto type = takeNumber(line);
  const auto parent = takeNumber(line);
  const auto id = takeNumber(line);
  const auto name = unescaped(line);
  if (!type || *type < 1 || *type > 8 || !parent || !id || *id == 0 || !name || name->empty())
    throw std::invalid_argument("expected type 1 to 8, parent, id and name, separated by tabs");
  registry.restore({static_cast<CodeType>(*type), *parent, *name}, *id);
}

[[noreturn]] void failOn(const std::string& path, const std::string& what) {
  throw std::runtime_error("id registry " + path + ": " + what);
}

}  // namespace

std::optional<std::int64_t> IdRegistry::find(const Key& key) const {
  const auto entry = _ids.find(key);
  if (entry == _ids.end()) return std::nullopt;
  return entry->second;
}

std::optional<std::int64_t> IdRegistry::assign(const Key& key, std::int64_t first,
                                               std::int64_t last) {
  if (const auto id = find(key)) return id;
  const auto largest = _largest.find({key.type, key.parent});
  const std::int64_t id = largest == _largest.end() ? first : largest->second + 1;
  if (id > last) return std::nullopt;
  restore(key, id);
  return id;
}

void IdRegistry::restore(const Key& key, std::int64_t id) {
  const auto known = find(key);
  if (known && *known != id)
    throw std::invalid_argument("name " + key.name + " has id " + std::to_string(*known) +
                                " and cannot get " + std::to_string(id));
  const auto [owner, isNew] = _names.try_emplace({key.type, id}, key.name);
  if (!known && !isNew)
    throw std::invalid_argument("id " + std::to_string(id) + " belongs to " + owner->second +
                                " and cannot go to " + key.name);
  _ids[key] = id;
  std::int64_t& largest = _largest[{key.type, key.parent}];
  largest = std::max(largest, id);
}

std::string IdRegistry::toText() const {
  std::string text;
  for (const auto& [key, id] : _ids) {
    text += std::to_string(static_cast<std::int32_t>(key.type)) + '\t' +
            std::to_string(key.parent) + '\t' + std::to_string(id) + '\t';
    appendEscaped(text, key.name);
    text += '\n';
  }
  return text;
}

IdRegistry IdRegistry::fromText(std::string_view text) {
  IdRegistry registry;
  for (std::size_t line = 1; !text.empty(); ++line) {
    const std::size_t end = text.find('\n');
    try {
      // A last line without its end was cut off in the middle.
      if (end == std::string_view::npos) throw std::invalid_argument("the line has no end");
      restoreLine(registry, text.substr(0, end));
    } catch (const std::invalid_argument& fault) {
      throw std::invalid_argument("line " + std::to_string(line) + ": " + fault.what());
    }
    text.remove_prefix(end + 1);
  }
  return registry;
}

IdRegistry IdRegistry::load(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) return {};
  if (error) failOn(path, error.message());
  if (std::filesystem::is_directory(status)) failOn(path, "is a directory");
  std::ifstream file(path, std::ios::binary);
  if (!file) failOn(path, std::generic_category().message(errno));
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) failOn(path, "cannot be read");
  try {
    return fromText(text.str());
  } catch (const std::invalid_argument& fault) {
    failOn(path, fault.what());
  }
}

void IdRegistry::save(const std::string& path) const {
  const std::string temporary = path + ".new";
  std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
  file << toText();
  file.close();
  if (!file) failOn(temporary, "cannot be written: " + std::generic_category().message(errno));
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) failOn(path, "cannot be replaced: " + error.message());
}

}  // namespace tolvar::service
