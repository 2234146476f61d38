#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

namespace tolvar::service {

/// Kinds of names, with the numbers that code entries carry.
enum class CodeType : std::int32_t {
  Country = 1,
  Province = 2,
  City = 3,
  District = 4,
  Extend = 5,
  Oper = 6,
  Nettype = 7,
  Apn = 8,
};

/// Remembers which id a name got, so that it keeps it when other names come and go: an id once
/// given is never given to another name. Names of places are known by their parent's id as well
/// (two provinces may each have a city of the same name); the other kinds have parent 0.
///
/// A value like any other: copyable, used by one thread at a time.
class IdRegistry {
 public:
  struct Key {
    CodeType type = CodeType::Country;
    std::int64_t parent = 0;
    std::string name;

    bool operator<(const Key& other) const {
      return std::tie(type, parent, name) < std::tie(other.type, other.parent, other.name);
    }
    bool operator==(const Key&) const = default;
  };

  /// Id of the name, nothing when it has none.
  std::optional<std::int64_t> find(const Key& key) const;

  /// Id of the name; a new one gets the id after the largest of its kind and parent so far, or
  /// `first` when there is none. Nothing when that is above `last`.
  std::optional<std::int64_t> assign(const Key& key, std::int64_t first, std::int64_t last);

  std::size_t size() const noexcept { return _ids.size(); }
  bool operator==(const IdRegistry& other) const { return _ids == other._ids; }

  /// All names with their ids, in key order.
  const std::map<Key, std::int64_t>& entries() const noexcept { return _ids; }

  /// Takes over one entry. Throws std::invalid_argument when the name has another id or the id
  /// belongs to another name of its kind.
  void restore(const Key& key, std::int64_t id);

  /// As text, one entry a line: type, parent, id, name, separated by tabs; a name's tabs, line ends
  /// and backslashes are escaped. Entries are sorted, so equal registries give equal text.
  std::string toText() const;

  /// Reads what `toText` wrote. Throws std::invalid_argument naming the line that is wrong.
  static IdRegistry fromText(std::string_view text);

  /// Reads the file `path`; one that does not exist is an empty registry. Throws std::runtime_error
  /// when it cannot be read or holds something else.
  static IdRegistry load(const std::string& path);

  /// Writes the file `path` anew, replacing it in one step. Throws std::runtime_error.
  void save(const std::string& path) const;

 private:
  std::map<Key, std::int64_t> _ids;
  std::map<std::pair<CodeType, std::int64_t>, std::string> _names;     ///< the other way round
  std::map<std::pair<CodeType, std::int64_t>, std::int64_t> _largest;  ///< by type and parent
};

}  // namespace tolvar::service
