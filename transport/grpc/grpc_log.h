#pragma once

namespace tolvar {

/// Makes the gRPC library itself print nothing: with wrong certificates it otherwise writes a line
/// to standard error per attempt to connect. The setting is the whole process's, so it is for
/// programs, not for libraries. Does nothing when the environment variable GRPC_VERBOSITY is set.
/// Call it before the first channel or server is made.
void silenceGrpcLibrary();

}  // namespace tolvar
