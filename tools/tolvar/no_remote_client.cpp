#include "platform/exception.h"
#include "tools/tolvar/remote_client.h"

namespace tolvar::tools {

std::unique_ptr<ClientSession> makeRemoteClient(const ServiceAddress&) {
  throw qel::ZU_Exception("this build has no network; build with -DTOLVAR_GRPC=ON");
}

}  // namespace tolvar::tools
