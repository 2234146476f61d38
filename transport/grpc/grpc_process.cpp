#include "transport/grpc/grpc_process.h"

#include <atomic>

#include "platform/exception.h"

namespace tolvar {
namespace {

/// The first process that made such an object, 0 before; a child has its parent's. For good,
/// because the library's threads go on for a while after the last object, or for as long as others
/// use it.
std::atomic<pid_t> owner{0};

}  // namespace

GrpcProcess::GrpcProcess() : _id(getpid()) {
  pid_t none = 0;
  if (!owner.compare_exchange_strong(none, _id) && none != _id)
    throw qel::ZU_Exception(kLostInFork);
}

}  // namespace tolvar
