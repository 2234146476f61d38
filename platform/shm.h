#pragma once

#include <sys/types.h>

#include <cstddef>

namespace qel {

/// One attached System V shared-memory segment. Used by one thread at a time.
class ZU_Shm {
 public:
  /// An owner removes the segment when the object is destroyed; any other only detaches.
  explicit ZU_Shm(bool owner = false) noexcept : _owner(owner) {}
  ~ZU_Shm();
  ZU_Shm(const ZU_Shm&) = delete;
  ZU_Shm& operator=(const ZU_Shm&) = delete;

  /// Attaches the segment behind `key` at whatever size it really has, or creates it with `size`
  /// bytes (all zero, mode 0660). `size` is only used for creation, so a segment that another
  /// process made larger or smaller is taken as it is; `size()` tells. A segment attached earlier
  /// through this object is detached first. `owner` replaces the constructor's flag.
  /// Throws ZU_Exception naming the call, the key and the cause.
  void init(std::size_t size, key_t key, bool owner = false);

  /// Attaches the existing segment behind `key`, read-only if asked. Answers false when there is
  /// none; throws ZU_Exception on any other failure. Never creates.
  bool attach(key_t key, bool readOnly = false);

  /// Identifier of the segment behind `key`, -1 when there is none or it cannot be had.
  static int idOf(key_t key) noexcept;

  /// True when the last `init` created the segment.
  bool iscreate() const noexcept { return _created; }

  /// Address of the segment in this process, null when none is attached.
  void* getPointer() const noexcept { return _address; }

  /// Real size of the attached segment in bytes, 0 when none is attached.
  std::size_t size() const noexcept { return _size; }

  /// System identifier of the attached segment, -1 when none is attached.
  int id() const noexcept { return _id; }

  /// Marks the segment for removal and detaches it. Processes that still map it keep their mapping.
  /// Throws ZU_Exception when the removal fails (one already removed by somebody else is no
  /// failure).
  void del();

  /// Frees the key for a successor but stays attached: the content is readable and writable here
  /// until `detach` or destruction. Throws like `del`, and then changes nothing.
  void remove();

  /// Detaches without removing.
  void detach() noexcept;

  /// Exchanges what two objects are attached to.
  void swap(ZU_Shm& other) noexcept;

 private:
  void map(int id, key_t key, int flags);

  bool _owner;
  bool _created = false;
  int _id = -1;
  key_t _key = 0;  ///< behind which the attached segment was found
  void* _address = nullptr;
  std::size_t _size = 0;
};

}  // namespace qel
