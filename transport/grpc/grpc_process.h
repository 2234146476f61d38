#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <memory>

namespace tolvar {

/// What a forked child is told.
inline constexpr const char* kLostInFork =
    "this process was forked from one that had made a GrpcCommunicator, and gRPC does not work in "
    "such "
    "a "
    "copy; fork before the first one is made and make one in each child, or start another program "
    "(exec)";

/// The process that an object was made in. A forked child has copies of the objects but none of
/// gRPC's threads: calls there wait for ever, whatever their deadline, and connections are the
/// parent's, who would get the answers mixed up. All operations may be called from any thread.
class GrpcProcess {
 public:
  /// Throws ZU_Exception in a child that was forked after its parent had made such an object.
  GrpcProcess();
  GrpcProcess(const GrpcProcess&) = delete;
  GrpcProcess& operator=(const GrpcProcess&) = delete;

  bool isForkedCopy() const noexcept { return _id != getpid(); }

 private:
  const pid_t _id;
};

/// Owns `object`, but in a forked child never destroys it: threads of the parent may have been
/// half-way through it, and there are none to join.
template <class Object>
std::shared_ptr<Object> ownedByThisProcess(std::unique_ptr<Object> object) {
  return {object.release(), [id = getpid()](Object* mine) {
            if (id == getpid()) delete mine;
          }};
}

}  // namespace tolvar
