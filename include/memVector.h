#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/assertion.h"
#include "platform/exception.h"
#include "platform/shared_write_point.h"
#include "records/records.h"

/// Fixed-size nodes and the vector that lays them into a block of memory. Every process on the host
/// reads these bytes, so sizes and offsets are a format: all integers are unsigned 64-bit in host
/// byte order, and no pointer is ever stored. docs/shared-memory.md draws it.

/// A full vector, or an index beyond its capacity.
class memVectorException : public qel::ZU_Exception {
 public:
  explicit memVectorException(const std::string& message) : qel::ZU_Exception(message) {}
  memVectorException(const std::string& message, int /*error*/) : qel::ZU_Exception(message) {}
};

/// 128 bytes: the length of an encoded record, the encoding, zero bytes up to the end.
struct MemNode {
  static constexpr std::size_t kSize = 128;
  /// Longest encoding that a node really holds, in bytes.
  static constexpr std::size_t kRoom = kSize - sizeof(std::uint64_t);

  char m_buffer[kSize];

  MemNode() noexcept { std::memset(m_buffer, 0, sizeof m_buffer); }

  /// Encodes the record into the node. Aborts for an encoding of 128 bytes or more. One of 121 to
  /// 127 bytes is accepted but cut at kRoom, so the node does not decode; `fits` tells beforehand.
  void CopyFrom(const ravel::IPAttribute& record);
  void CopyFrom(const ravel::CodeInfo& record);
  void InnerCopyFrom(const ravel::VekOutputStream<ravel::BufferWriter>& encoded);

  /// Decodes the node. Throws what the encoding throws for bytes that are no such record. Never
  /// reads outside the node, whatever its length word says.
  void ParseTo(ravel::IPAttribute* record) const;
  void ParseTo(ravel::CodeInfo* record) const;
  void InnerParseTo(ravel::VekInputStream<ravel::BufferReader>* in) const;

  /// The length word, believed or not.
  std::uint64_t encodedLength() const noexcept {
    std::uint64_t length = 0;
    std::memcpy(&length, m_buffer, sizeof length);
    return length;
  }

  /// True when the encoding can be stored whole.
  static bool fits(const ravel::VekOutputStream<ravel::BufferWriter>& encoded) noexcept {
    return encoded.getLength() <= kRoom;
  }
};

struct MemNode_IPAttribute : MemNode {
  static constexpr const char* kClearFunction =
      "void MemVector<T>::clear() [with T = MemNode_IPAttribute]";
  /// Byte order of the nodes; the library itself never orders nodes.
  bool operator<(const MemNode_IPAttribute& other) const noexcept {
    return std::memcmp(m_buffer, other.m_buffer, kSize) < 0;
  }
};

struct MemNode_CodeInfo : MemNode {
  static constexpr const char* kClearFunction =
      "void MemVector<T>::clear() [with T = MemNode_CodeInfo]";
  /// Byte order of the nodes; the library itself never orders nodes.
  bool operator<(const MemNode_CodeInfo& other) const noexcept {
    return std::memcmp(m_buffer, other.m_buffer, kSize) < 0;
  }
};

static_assert(sizeof(MemNode) == 128);
static_assert(sizeof(MemNode_IPAttribute) == 128 && sizeof(MemNode_CodeInfo) == 128);

/// First 32 bytes of a vector's block.
struct tagMemQueueHead {
  std::uint64_t _iSize;        ///< bytes of the whole block, this head included
  std::uint64_t _iBlockCount;  ///< capacity in nodes
  std::uint64_t _iBlockSize;   ///< bytes of a node, always 128; the mark of a laid vector
  std::uint64_t _iMaxIndex;    ///< nodes written, the next free slot
};
static_assert(sizeof(tagMemQueueHead) == 32);
static_assert(offsetof(tagMemQueueHead, _iBlockCount) == 8);
static_assert(offsetof(tagMemQueueHead, _iBlockSize) == 16);
static_assert(offsetof(tagMemQueueHead, _iMaxIndex) == 24);

/// Handle of a vector of nodes that lies in a block which somebody else owns. The block begins at
/// an address that is a multiple of 8. The handle has no lock: one thread of one process writes a
/// block that nobody reads; readers come when it is complete.
template <class T>
class MemVector {
 public:
  /// Bytes of a block for `count` nodes.
  static constexpr std::size_t calcMemSize(std::size_t count) noexcept {
    return count * sizeof(T) + sizeof(tagMemQueueHead);
  }

  /// Aims the handle at a block without touching it.
  void init(void* addr) noexcept {
    _pHead = static_cast<tagMemQueueHead*>(addr);
    _pData = static_cast<char*>(addr) + sizeof(tagMemQueueHead);
  }

  /// Lays a new, empty vector into the `size` bytes at `addr`, 32 at least; zeroes them all.
  void create(void* addr, std::size_t size) noexcept {
    qel::sharedZero("vector block", addr, size);
    createInZeros(addr, size);
  }

  /// The same where all bytes are zero already. It touches the head alone: what a new segment does
  /// not need yet takes no memory then.
  void createInZeros(void* addr, std::size_t size) noexcept {
    init(addr);
    announce(size);
    setMaxIndex(0);
  }

  /// Takes over an existing vector. True when its mark is right; nothing else is checked.
  bool connect(void* addr) noexcept {
    init(addr);
    return _pHead->_iBlockSize == sizeof(T);
  }

  /// Announces a new block size, keeping count and nodes.
  void reset(void* addr, std::size_t size) noexcept {
    init(addr);
    announce(size);
  }

  /// Empties the vector and zeroes every slot. Aborts on a handle that was never aimed.
  void clear() {
    if (_pHead == nullptr) {
      qel::assertionFailed("_pHead", "../include/memVector", __LINE__, T::kClearFunction);
    }
    qel::sharedZero("vector slots", _pData, _pHead->_iBlockSize * _pHead->_iBlockCount);
    setMaxIndex(0);
  }

  /// Appends a copy of `node`; throws memVectorException when the vector is full.
  void writeData(const T& node) {
    if (_pHead->_iMaxIndex >= _pHead->_iBlockCount) throwBeyond(_pHead->_iMaxIndex);
    qel::sharedCopy("node", _pData + _pHead->_iMaxIndex * sizeof(T), &node, sizeof(T));
    setMaxIndex(_pHead->_iMaxIndex + 1);
  }

  /// Begins to write the vector anew from its first slot on. Unlike `clear` it leaves the old nodes
  /// where they are; `clearRest` takes away those that were not overwritten.
  void rewind() noexcept { setMaxIndex(0); }

  /// Zeroes every slot behind the nodes written.
  void clearRest() noexcept {
    qel::sharedZero("vector slots", _pData + _pHead->_iMaxIndex * sizeof(T),
                    (_pHead->_iBlockCount - _pHead->_iMaxIndex) * sizeof(T));
  }

  /// The slot that `writeData` would write next, for a caller who fills all of it in place and then
  /// calls `endNode`; throws memVectorException when the vector is full.
  T* beginNode() {
    if (_pHead->_iMaxIndex >= _pHead->_iBlockCount) throwBeyond(_pHead->_iMaxIndex);
    qel::sharedWritePoint("node");
    return reinterpret_cast<T*>(_pData + _pHead->_iMaxIndex * sizeof(T));
  }
  void endNode() noexcept { setMaxIndex(_pHead->_iMaxIndex + 1); }

  /// The node in slot `index`, written or not; throws memVectorException beyond the capacity.
  const T& operator[](std::size_t index) const {
    if (index >= _pHead->_iBlockCount) throwBeyond(index);
    return *reinterpret_cast<const T*>(_pData + index * _pHead->_iBlockSize);
  }

  /// Nodes written.
  std::size_t getMaxIndex() const noexcept { return _pHead->_iMaxIndex; }

  /// Capacity in nodes.
  std::size_t size() const noexcept { return _pHead->_iBlockCount; }

  /// Bytes of the block.
  std::size_t getMemSize() const noexcept { return _pHead->_iSize; }

  void* getAddr() const noexcept { return _pHead; }
  void* getDataAddr() const noexcept { return _pData; }

  /// A copy of the head.
  tagMemQueueHead desc() const noexcept { return *_pHead; }

 private:
  void announce(std::size_t size) noexcept {
    qel::sharedWritePoint("vector size");
    _pHead->_iSize = size;
    qel::sharedWritePoint("vector capacity");
    _pHead->_iBlockCount = (size - sizeof(tagMemQueueHead)) / sizeof(T);
    qel::sharedWritePoint("vector mark");
    _pHead->_iBlockSize = sizeof(T);
  }

  void setMaxIndex(std::uint64_t count) noexcept {
    qel::sharedWritePoint("vector count");
    _pHead->_iMaxIndex = count;
  }

  [[noreturn]] void throwBeyond(std::uint64_t index) const {
    // The text says "get" for a failed write, too; log readers look for it.
    throw memVectorException("[MemVector::get] index beyond : index = " + std::to_string(index) +
                             " > " + std::to_string(_pHead->_iBlockCount));
  }

  tagMemQueueHead* _pHead = nullptr;
  char* _pData = nullptr;
};

using IPVector = MemVector<MemNode_IPAttribute>;
using CodeVector = MemVector<MemNode_CodeInfo>;
