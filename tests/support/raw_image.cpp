#include "tests/support/raw_image.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace tolvar_test {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// Bytes taken one after the other; running out of them throws.
class Cursor {
 public:
  Cursor(const unsigned char* bytes, std::size_t size) : _at(bytes), _end(bytes + size) {}

  bool ended() const { return _at == _end; }

  std::uint64_t bigEndian(int bytes) {
    std::uint64_t value = 0;
    while (bytes-- > 0) value = value << 8 | next();
    return value;
  }

  std::string text(std::size_t size) {
    if (size > static_cast<std::size_t>(_end - _at)) throw std::runtime_error("text is cut off");
    const std::string value(_at, _at + size);
    _at += size;
    return value;
  }

  unsigned char next() {
    if (ended()) throw std::runtime_error("field is cut off");
    return *_at++;
  }

 private:
  const unsigned char* _at;
  const unsigned char* _end;
};

RawField bodyOf(unsigned type, Cursor& in) {
  RawField field;
  switch (type) {
    case 0: field.number = static_cast<std::int8_t>(in.bigEndian(1)); break;
    case 1: field.number = static_cast<std::int16_t>(in.bigEndian(2)); break;
    case 2: field.number = static_cast<std::int32_t>(in.bigEndian(4)); break;
    case 3: field.number = static_cast<std::int64_t>(in.bigEndian(8)); break;
    case 6:
    case 7:
      field.isText = true;
      field.text = in.text(in.bigEndian(type == 6 ? 1 : 4));
      break;
    case 12: break;
    default: throw std::runtime_error("field of type " + std::to_string(type));
  }
  return field;
}

std::int64_t number(const std::map<unsigned, RawField>& fields, unsigned tag) {
  const RawField& field = fields.at(tag);
  if (field.isText) throw std::runtime_error("a text instead of a number");
  return field.number;
}

std::uint32_t number32(const std::map<unsigned, RawField>& fields, unsigned tag) {
  const std::int64_t value = number(fields, tag);
  if (value < 0 || value > 0xFFFFFFFFll) throw std::runtime_error("not an unsigned 32-bit number");
  return static_cast<std::uint32_t>(value);
}

}  // namespace

std::map<unsigned, RawField> decodeFields(const unsigned char* bytes, std::size_t size) {
  std::map<unsigned, RawField> fields;
  Cursor in(bytes, size);
  while (!in.ended()) {
    const unsigned head = in.next();
    const unsigned tag = (head >> 4) == 15 ? in.next() : head >> 4;
    if (!fields.empty() && fields.rbegin()->first >= tag)
      throw std::runtime_error("tags do not increase");
    fields.emplace(tag, bodyOf(head & 15u, in));
  }
  return fields;
}

RawSegment::RawSegment(key_t key) : _id(shmget(key, 0, 0)), _bytes(nullptr) {
  if (_id < 0) fail("shmget");
  void* address = shmat(_id, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) fail("shmat");
  _bytes = static_cast<unsigned char*>(address);
  shmid_ds description{};
  if (shmctl(_id, IPC_STAT, &description) != 0) fail("shmctl");
  _size = description.shm_segsz;
  _mode = description.shm_perm.mode & 0777u;
}

RawSegment::~RawSegment() { shmdt(_bytes); }

void RawSegment::create(key_t key, std::size_t size) {
  if (shmget(key, size, IPC_CREAT | IPC_EXCL | 0660) < 0) fail("shmget");
}

bool RawSegment::exists(key_t key) { return idBehind(key) >= 0; }

int RawSegment::idBehind(key_t key) { return shmget(key, 0, 0); }

const unsigned char* RawSegment::at(std::size_t offset, std::size_t bytes) const {
  if (offset > _size || bytes > _size - offset) throw std::out_of_range("beyond the segment");
  return _bytes + offset;
}

std::uint32_t RawSegment::word32(std::size_t offset) const {
  std::uint32_t word = 0;
  std::memcpy(&word, at(offset, sizeof word), sizeof word);
  return word;
}

std::uint64_t RawSegment::word64(std::size_t offset) const {
  std::uint64_t word = 0;
  std::memcpy(&word, at(offset, sizeof word), sizeof word);
  return word;
}

std::string RawSegment::bytes(std::size_t offset, std::size_t count) const {
  const unsigned char* begin = at(offset, count);
  return std::string(begin, begin + count);
}

void RawSegment::write(std::size_t offset, const std::string& bytes) {
  at(offset, bytes.size());
  std::memcpy(_bytes + offset, bytes.data(), bytes.size());
}

void RawSegment::write32(std::size_t offset, std::uint32_t word) {
  at(offset, sizeof word);
  std::memcpy(_bytes + offset, &word, sizeof word);
}

void RawSegment::write64(std::size_t offset, std::uint64_t word) {
  at(offset, sizeof word);
  std::memcpy(_bytes + offset, &word, sizeof word);
}

std::array<RawRegion, RawSegment::kRegions> RawSegment::regions() const {
  std::array<RawRegion, kRegions> found{};
  std::size_t offset = 16;
  for (RawRegion& region : found) {
    region.offset = offset;
    region.sizeWord = word64(offset);
    region.size = word64(offset + 8);
    region.capacity = word64(offset + 16);
    region.nodeSize = word64(offset + 24);
    region.count = word64(offset + 32);
    at(offset + 8, region.sizeWord);
    offset += 8 + region.sizeWord;
  }
  return found;
}

std::map<unsigned, RawField> RawSegment::fieldsOf(const RawRegion& region,
                                                  std::size_t index) const {
  const std::size_t node = region.node(index);
  const std::uint64_t length = word64(node);
  if (length > 120) throw std::runtime_error("node longer than its room");
  for (std::size_t i = 8 + length; i < 128; ++i)
    if (*at(node + i, 1) != 0) throw std::runtime_error("node does not end with zeros");
  return decodeFields(at(node + 8, length), length);
}

std::vector<RawRange> RawSegment::ranges() const {
  const RawRegion region = regions()[0];
  std::vector<RawRange> found;
  for (std::size_t i = 0; i < region.count; ++i) {
    const auto fields = fieldsOf(region, i);
    found.push_back({number32(fields, 0), number32(fields, 1), number(fields, 2),
                     number32(fields, 3), number32(fields, 4), number32(fields, 5),
                     number32(fields, 6), number32(fields, 7)});
  }
  return found;
}

std::vector<RawCode> RawSegment::codes(int table) const {
  const RawRegion region = regions()[static_cast<std::size_t>(1 + table)];
  std::vector<RawCode> found;
  for (std::size_t i = 0; i < region.count; ++i) {
    const auto fields = fieldsOf(region, i);
    if (!fields.at(2).isText) throw std::runtime_error("a number instead of a text");
    found.push_back({number(fields, 0), number(fields, 1), fields.at(2).text});
  }
  return found;
}

bool RawSegment::sizeMarksRight() const {
  for (std::size_t i = 0; i < 16; ++i)
    if (word64(8 * i) != 0x1330480) return false;
  return true;
}

}  // namespace tolvar_test
