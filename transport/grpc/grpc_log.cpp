#include "transport/grpc/grpc_log.h"

#include <grpc/support/log.h>

#include <cstdlib>

namespace tolvar {

void silenceGrpcLibrary() {
  if (std::getenv("GRPC_VERBOSITY") != nullptr) return;
  gpr_set_log_function([](gpr_log_func_args*) {});
}

}  // namespace tolvar
