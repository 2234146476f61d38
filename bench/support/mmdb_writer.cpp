#include "bench/support/mmdb_writer.h"

#include <array>
#include <bit>
#include <fstream>
#include <map>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "src/index/tuple_numbers.h"

namespace tolvar_bench {
namespace {

/// The data section: typed values, one after the other.
class MmdbData {
 public:
  std::uint32_t size() const { return static_cast<std::uint32_t>(_bytes.size()); }
  const std::string& bytes() const { return _bytes; }

  void map(std::uint32_t entries) { control(7, entries); }
  void array(std::uint32_t entries) { control(11, entries); }
  void uint16(std::uint16_t value) { number(5, value, 2); }
  void uint32(std::uint32_t value) { number(6, value, 4); }
  void uint64(std::uint64_t value) { number(9, value, 8); }

  void text(const std::string& value) {
    const auto [known, isNew] = _texts.emplace(value, size());
    if (!isNew && value.size() > 4) return pointer(known->second);
    control(2, static_cast<std::uint32_t>(value.size()));
    _bytes += value;
  }

 private:
  void byte(std::uint32_t value) { _bytes += static_cast<char>(value & 0xFFu); }

  void bigEndian(std::uint64_t value, unsigned bytes) {
    while (bytes-- > 0) byte(static_cast<std::uint32_t>(value >> (8 * bytes)));
  }

  /// Three bits of type and five of size; types above 7 follow in a byte of their own, sizes above
  /// 28 in one or two.
  void control(unsigned type, std::uint32_t length) {
    const std::uint32_t shortLength = length < 29 ? length : length < 285 ? 29 : 30;
    byte((type <= 7 ? type << 5 : 0) | shortLength);
    if (type > 7) byte(type - 7);
    if (shortLength == 29) bigEndian(length - 29, 1);
    if (shortLength == 30) bigEndian(length - 285, 2);
  }

  /// Leading zero bytes of a number are left out.
  void number(unsigned type, std::uint64_t value, unsigned most) {
    unsigned bytes = 0;
    while (bytes < most && (value >> (8 * bytes)) != 0) ++bytes;
    control(type, bytes);
    bigEndian(value, bytes);
  }

  /// The form with a four-byte offset.
  void pointer(std::uint32_t offset) {
    byte(1u << 5 | 3u << 3);
    bigEndian(offset, 4);
  }

  std::string _bytes;
  std::unordered_map<std::string, std::uint32_t> _texts;
};

/// The tree over the address bits. A child is 0 (nothing), a node's number or, with the upper bit
/// set, the number of a value.
class MmdbTree {
 public:
  MmdbTree() : _nodes(1) {}

  void insert(std::uint32_t start, std::uint32_t end, std::uint32_t value) {
    for (std::uint64_t at = start; at <= end;) {
      const int aligned = at == 0 ? 32 : std::countr_zero(at);
      const int fitting = static_cast<int>(std::bit_width(std::uint64_t{end} - at + 1)) - 1;
      const int bits = std::min(aligned, fitting);
      insertPrefix(static_cast<std::uint32_t>(at), 32 - bits, value | kValue);
      at += std::uint64_t{1} << bits;
    }
  }

  std::uint32_t size() const { return static_cast<std::uint32_t>(_nodes.size()); }

  /// The nodes in the file's form; `offsets` says where in the data section a value lies.
  std::string bytes(const std::vector<std::uint32_t>& offsets) const {
    std::string result;
    result.reserve(_nodes.size() * 8);
    for (const auto& node : _nodes) {
      for (const std::uint32_t child : node) {
        const std::uint32_t record = (child & kValue) != 0 ? size() + 16 + offsets[child & ~kValue]
                                     : child != 0          ? child
                                                           : size();
        for (int shift = 24; shift >= 0; shift -= 8) result += static_cast<char>(record >> shift);
      }
    }
    return result;
  }

 private:
  static constexpr std::uint32_t kValue = 1u << 31;

  void insertPrefix(std::uint32_t address, int length, std::uint32_t child) {
    if (length == 0) {
      _nodes[0] = {child, child};
      return;
    }
    std::uint32_t node = 0;
    for (int depth = 0; depth + 1 < length; ++depth) {
      const std::uint32_t bit = (address >> (31 - depth)) & 1u;
      if (_nodes[node][bit] == 0) {
        _nodes[node][bit] = size();
        _nodes.push_back({});
      }
      node = _nodes[node][bit];
    }
    _nodes[node][(address >> (32 - length)) & 1u] = child;
  }

  std::vector<std::array<std::uint32_t, 2>> _nodes;
};

void addRecord(const ravel::IPInfo& info,
               const std::function<std::string(int, std::uint32_t)>& name, MmdbData* data) {
  data->map(8);
  const auto add = [&](const std::string& key, int type, std::uint32_t id) {
    data->text(key);
    data->uint32(id);
    data->text(key + "_name");
    data->text(name(type, id));
  };
  add("country", 0, info.country);
  add("province", 1, info.province);
  add("city", 2, info.city);
  add("oper", 5, info.oper);
}

std::string metadata(std::uint32_t nodes) {
  MmdbData data;
  data.map(9);
  data.text("node_count"), data.uint32(nodes);
  data.text("record_size"), data.uint16(32);
  data.text("ip_version"), data.uint16(4);
  data.text("database_type"), data.text("tolvar-bench");
  data.text("languages"), data.array(0);
  data.text("binary_format_major_version"), data.uint16(2);
  data.text("binary_format_minor_version"), data.uint16(0);
  data.text("build_epoch"), data.uint64(1);
  data.text("description"), data.map(0);
  return data.bytes();
}

}  // namespace

void writeMmdb(const std::string& path, std::span<const ravel::IPProperty> ranges,
               const std::function<std::string(int, std::uint32_t)>& name) {
  MmdbTree tree;
  MmdbData data;
  const tolvar::TupleNumbers tuples(ranges);
  std::vector<std::uint32_t> offsets(1);
  for (std::uint32_t number = 1; number < tuples.count(); ++number) {
    offsets.push_back(data.size());
    addRecord(tuples.info(number), name, &data);
  }
  for (std::size_t i = 0; i < ranges.size(); ++i)
    tree.insert(ranges[i].startIP, ranges[i].endIP, tuples.ofRanges()[i]);
  std::ofstream file(path, std::ios::binary);
  file << tree.bytes(offsets) << std::string(16, '\0') << data.bytes() << "\xAB\xCD\xEFMaxMind.com"
       << metadata(tree.size());
  file.close();
  if (!file) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace tolvar_bench
