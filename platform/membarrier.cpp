#include "platform/membarrier.h"

#include <linux/membarrier.h>

#include "platform/system_calls.h"

namespace qel {

bool registerProcessBarrier() noexcept {
  return systemCalls().membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0) == 0;
}

bool processBarrier() noexcept {
  return systemCalls().membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) == 0;
}

}  // namespace qel
