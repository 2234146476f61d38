#pragma once

#include <grpcpp/security/credentials.h>
#include <grpcpp/security/server_credentials.h>

#include <memory>

#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// Credentials that trust `files.caFile` and show `files.certFile` if there is one.
/// Throws ZU_Exception naming the file when one cannot be read or is not PEM of its kind.
std::shared_ptr<grpc::ChannelCredentials> clientCredentials(const GrpcTlsFiles& files);

/// Credentials that show `files.certFile`; with `files.caFile` every client must show a certificate
/// from one of those authorities. Throws as above.
std::shared_ptr<grpc::ServerCredentials> serverCredentials(const GrpcTlsFiles& files);

}  // namespace tolvar
