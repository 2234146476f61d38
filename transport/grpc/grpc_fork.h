#pragma once

namespace tolvar {

/// gRPC's library keeps threads, and sets of descriptors that a fork shares with the parent. A
/// process forked from one that has used it has none of the threads: a call there never returns,
/// its deadline notwithstanding. So it is refused. All operations may be called from any thread.

/// Notes that this process uses gRPC through this library. Throws ZU_Exception, saying what to do,
/// in a process that was forked from one which did.
void claimGrpc();

/// True in a process that was forked from one which had used gRPC through this library.
bool isGrpcLostInFork() noexcept;

}  // namespace tolvar
