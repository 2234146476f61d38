#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/security/credentials.h>

#include <memory>
#include <string>

#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// A channel to one endpoint; does not connect. `credentials` come from ClientCredentials, or are
/// insecure ones. Any thread.
std::shared_ptr<grpc::Channel> makeChannel(
    const std::string& endpoint, const std::shared_ptr<grpc::ChannelCredentials>& credentials,
    const GrpcOptions& options);

}  // namespace tolvar
