#include "tests/src/update/segment_view.h"

#include <sys/shm.h>

#include <cstring>
#include <stdexcept>

#include "platform/md5.h"

namespace tolvar_test {
namespace {

constexpr std::size_t kHead = 16;
constexpr std::size_t kVectorHead = 32;
constexpr std::size_t kNode = 128;
constexpr int kLastRegion = 8;

/// Reads the fields of one encoded record in the order of their tags.
class FieldReader {
 public:
  explicit FieldReader(std::string bytes) : _bytes(std::move(bytes)) {}

  std::int64_t number(int tag) {
    const int type = head(tag);
    if (type == 12) return 0;
    if (type > 3) throw std::runtime_error("not a number");
    const int width = 1 << type;
    std::uint64_t value = 0;
    for (int i = 0; i < width; ++i) value = value << 8 | byte();
    const int unused = 64 - 8 * width;
    return static_cast<std::int64_t>(value << unused) >> unused;
  }

  std::uint32_t address(int tag) { return static_cast<std::uint32_t>(number(tag)); }

  std::string text(int tag) {
    if (head(tag) != 6) throw std::runtime_error("not a short string");
    const std::size_t length = byte();
    _next += length;
    return _bytes.substr(_next - length, length);
  }

 private:
  int head(int tag) {
    const unsigned value = byte();
    if (static_cast<int>(value >> 4) != tag) throw std::runtime_error("unexpected tag");
    return static_cast<int>(value & 15);
  }
  unsigned byte() { return static_cast<unsigned char>(_bytes.at(_next++)); }

  std::string _bytes;
  std::size_t _next = 0;
};

void put(std::string* bytes, const void* value, std::size_t size) {
  bytes->append(static_cast<const char*>(value), size);
}

}  // namespace

SegmentView::SegmentView(key_t key) {
  const int id = shmget(key, 0, 0);
  if (id < 0) return;
  void* at = shmat(id, nullptr, SHM_RDONLY);
  shmid_ds description{};
  if (at == reinterpret_cast<void*>(-1) || shmctl(id, IPC_STAT, &description) != 0) return;
  _at = static_cast<const char*>(at);
  _bytes = description.shm_segsz;
}

SegmentView::~SegmentView() {
  if (_at != nullptr) shmdt(_at);
}

std::uint32_t SegmentView::status(std::size_t offset) const {
  return __atomic_load_n(reinterpret_cast<const std::uint32_t*>(_at + offset), __ATOMIC_ACQUIRE);
}

std::uint64_t SegmentView::word(std::size_t offset) const {
  if (offset + 8 > _bytes) throw std::runtime_error("beyond the segment");
  return __atomic_load_n(reinterpret_cast<const std::uint64_t*>(_at + offset), __ATOMIC_ACQUIRE);
}

std::size_t SegmentView::regionOffset(int region) const {
  std::size_t at = kHead;
  for (int i = 0; i < region; ++i) at += 8 + word(at);
  return at;
}

std::string SegmentView::node(int region, std::size_t index) const {
  const std::size_t at = regionOffset(region) + 8 + kVectorHead + index * kNode;
  const std::uint64_t length = word(at);
  if (length > kNode - 8 || at + kNode > _bytes) throw std::runtime_error("impossible node");
  return std::string(_at + at + 8, length);
}

std::vector<StoredRange> SegmentView::ranges() const {
  std::vector<StoredRange> all;
  for (std::size_t i = 0; i < nodes(0); ++i) {
    FieldReader fields(node(0, i));
    StoredRange range{};
    range.start = fields.address(0);
    range.end = fields.address(1);
    range.place = fields.number(2);
    range.extend = fields.address(3);
    range.oper = fields.address(4);
    range.nettype = fields.address(5);
    range.apn = fields.address(6);
    range.flable = fields.address(7);
    all.push_back(range);
  }
  return all;
}

std::vector<StoredCode> SegmentView::codes(int table) const {
  std::vector<StoredCode> all;
  for (std::size_t i = 0; i < nodes(table + 1); ++i) {
    FieldReader fields(node(table + 1, i));
    StoredCode entry{};
    entry.type = fields.number(0);
    entry.id = fields.number(1);
    entry.name = fields.text(2);
    all.push_back(entry);
  }
  return all;
}

std::string SegmentView::content() const {
  const std::size_t last = regionOffset(kLastRegion);
  return std::string(_at + kHead, last + 8 + word(last) - kHead);
}

std::string digestOf(const std::vector<StoredRange>& ranges) {
  std::string bytes;
  for (const StoredRange& range : ranges) {
    for (const std::uint32_t field :
         {range.start, range.end, range.extend, range.oper, range.nettype, range.apn, range.flable})
      put(&bytes, &field, sizeof field);
    put(&bytes, &range.place, sizeof range.place);
  }
  return qel::ZU_MD5::md5str(bytes);
}

}  // namespace tolvar_test
