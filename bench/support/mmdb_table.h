#pragma once

#include <maxminddb.h>
#include <netinet/in.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace tolvar_bench {

/// libmaxminddb over a database that writeMmdb wrote, as its manual page uses it.
class MmdbTable {
 public:
  explicit MmdbTable(const std::string& path) {
    const int status = MMDB_open(path.c_str(), MMDB_MODE_MMAP, &_database);
    if (status != MMDB_SUCCESS) throw std::runtime_error(path + ": " + MMDB_strerror(status));
  }
  ~MmdbTable() { MMDB_close(&_database); }
  MmdbTable(const MmdbTable&) = delete;
  MmdbTable& operator=(const MmdbTable&) = delete;

  /// The entry alone; host order.
  MMDB_lookup_result_s find(std::uint32_t ip) const noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    int error = MMDB_SUCCESS;
    return MMDB_lookup_sockaddr(&_database, reinterpret_cast<const sockaddr*>(&address), &error);
  }

  /// The entry alone, from a dotted quad.
  MMDB_lookup_result_s findText(const char* ip) const noexcept {
    int textError = 0;
    int error = MMDB_SUCCESS;
    return MMDB_lookup_string(&_database, ip, &textError, &error);
  }

  /// The entry and its country, province, city and oper ids.
  bool findIds(std::uint32_t ip, std::uint32_t (&ids)[4]) const noexcept {
    MMDB_lookup_result_s result = find(ip);
    if (!result.found_entry) return false;
    std::uint32_t* id = ids;
    for (const char* key : {"country", "province", "city", "oper"}) {
      MMDB_entry_data_s data;
      if (MMDB_get_value(&result.entry, &data, key, nullptr) != MMDB_SUCCESS) return false;
      *id++ = data.uint32;
    }
    return true;
  }

  /// The entry and the four names, copied into strings that may have room already.
  bool findNames(std::uint32_t ip, std::string (&names)[4]) const {
    MMDB_lookup_result_s result = find(ip);
    if (!result.found_entry) return false;
    std::string* name = names;
    for (const char* key : {"country_name", "province_name", "city_name", "oper_name"}) {
      MMDB_entry_data_s data;
      if (MMDB_get_value(&result.entry, &data, key, nullptr) != MMDB_SUCCESS) return false;
      name++->assign(data.utf8_string, data.data_size);
    }
    return true;
  }

 private:
  MMDB_s _database;
};

}  // namespace tolvar_bench
