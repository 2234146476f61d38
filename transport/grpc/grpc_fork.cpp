#include "transport/grpc/grpc_fork.h"

#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "platform/exception.h"

namespace tolvar {
namespace {

/// The first process that claimed it, 0 before.
std::atomic<pid_t> claimant{0};

}  // namespace

void claimGrpc() {
  pid_t none = 0;
  claimant.compare_exchange_strong(none, getpid());
  if (isGrpcLostInFork())
    throw qel::ZU_Exception(
        "this process was forked from one that had made a GrpcCommunicator, and gRPC does not work "
        "in such a copy; fork before the first one is made, and make one in each child");
}

bool isGrpcLostInFork() noexcept {
  const pid_t process = claimant;
  return process != 0 && process != getpid();
}

}  // namespace tolvar
