#pragma once

#include <grpcpp/security/server_credentials.h>

#include <functional>
#include <memory>
#include <string>

#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// Credentials that show `files.certFile`; with `files.caFile` every client must show a certificate
/// from one of those authorities. A thread reads the files again every `reloadInterval`;
/// connections made from then on get what they hold, if it can be used, and all others go on as
/// they are. That thread calls `onChange`, which may be empty, as GrpcServerOptions::onTlsFiles
/// says.
///
/// Throws ZU_Exception when a file cannot be used: which, what is wrong, what to do. The server
/// they are given to must be destroyed before them.
std::shared_ptr<grpc::ServerCredentials> serverCredentials(
    const GrpcTlsFiles& files, std::function<void(const std::string& refusal)> onChange);

}  // namespace tolvar
