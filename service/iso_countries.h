#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tolvar::service {

/// Where Debian's package iso-codes puts the countries of ISO 3166-1.
inline constexpr const char* kIsoCountriesPath = "/usr/share/iso-codes/json/iso_3166-1.json";

/// Country ids, smallest to largest:
///   1 to 899      ISO 3166-1 numeric codes
///   900 to 905    codes that address registries use besides: ?? AN AP CS EU UK (ISO leaves 900 to
///                 999 to its users)
///   1000 to 2999  names that nobody knows, given by IdRegistry
///   3000 to 3675  two capital letters that nobody knows: 3000 + 26 * first + second, A being 0
/// All ids leave room for nine more decimal digits in a place, and six in a 32-bit city id.
inline constexpr std::int64_t kFirstOwnCountry = 1000;
inline constexpr std::int64_t kLastOwnCountry = 2999;
inline constexpr std::int64_t kFirstUnlistedCountry = 3000;

struct Country {
  std::int64_t id = 0;
  std::string name;
  bool isCode = false;  ///< it was found by its code, not by its name
  bool isListed =
      true;  ///< false: two capital letters that no list explains; the name repeats them
};

/// The countries of ISO 3166-1 and the six codes that address registries use besides. Immutable
/// once built; safe from any thread.
class IsoCountries {
 public:
  /// Reads the JSON file `path`. Throws std::runtime_error, saying which package to install when
  /// the file is missing, or what is wrong with it.
  static IsoCountries load(const std::string& path = kIsoCountriesPath);

  /// The country with the code `code` (two or three letters of ISO 3166-1, or one of the six; upper
  /// case). Two unlisted capital letters give an unlisted country; anything else nothing.
  std::optional<Country> findCode(std::string_view code) const;

  /// The country that `text` means: a code as above, or a name (short, common or official; ASCII
  /// case does not matter). A name that ISO 3166-1 knows means its country there.
  std::optional<Country> find(std::string_view text) const;

  /// The two-letter code of a listed country; nothing for other ids.
  std::optional<std::string> codeOf(std::int64_t id) const;

 private:
  void addName(std::int64_t id, const std::string& name);

  std::unordered_map<std::string, std::int64_t> _byCode;
  std::unordered_map<std::string, std::int64_t> _byName;  ///< keys in lower case
  std::unordered_map<std::int64_t, std::string> _names;
};

}  // namespace tolvar::service
