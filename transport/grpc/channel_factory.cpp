#include "transport/grpc/channel_factory.h"

#include <grpc/grpc.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/support/channel_arguments.h>

#include <algorithm>
#include <limits>

namespace tolvar {
namespace {

constexpr int kFirstBackoffMillis = 100;
constexpr int kMaxBackoffMillis = 500;
/// What a server may send of an answer before it hears from us again. About a page: with gRPC's own
/// 64 KiB the first pages of a connection cost the server a third more processor time.
constexpr int kStreamWindowBytes = 1048576;
/// What a server may send in one piece. Every piece costs both sides, and gRPC's own 16 KiB make
/// some fifty of a page; but an answer to another call on the connection may have to wait for one.
constexpr int kFrameBytes = 262144;

int millis(std::chrono::milliseconds duration) {
  constexpr std::chrono::milliseconds::rep kMost = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(duration.count(), 1, kMost));
}

}  // namespace

std::shared_ptr<grpc::Channel> makeChannel(
    const std::string& endpoint, const std::shared_ptr<grpc::ChannelCredentials>& credentials,
    const GrpcOptions& options) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(options.maxReceiveBytes);
  // A compressed message would be unpacked whole before its size is checked.
  arguments.SetInt(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
  arguments.SetInt(GRPC_COMPRESSION_CHANNEL_ENABLED_ALGORITHMS_BITSET, 1 << GRPC_COMPRESS_NONE);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, kFirstBackoffMillis);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, kMaxBackoffMillis);
  // Despite its name this bounds one attempt to connect.
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, millis(options.connectTimeout));
  arguments.SetInt(GRPC_ARG_DNS_MIN_TIME_BETWEEN_RESOLUTIONS_MS, kMaxBackoffMillis);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, millis(options.keepaliveTime));
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, millis(options.keepaliveTimeout));
  arguments.SetInt(GRPC_ARG_CLIENT_IDLE_TIMEOUT_MS, millis(options.idleTimeout));
  arguments.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, kStreamWindowBytes);
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_FRAME_SIZE, kFrameBytes);
  // Connections belong to their communicator and close with it.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  // The service is reached as configured, whatever http_proxy or DNS TXT records say.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  if (options.tls && !options.authority.empty())
    arguments.SetSslTargetNameOverride(options.authority);
  return grpc::CreateCustomChannel(endpoint, credentials, arguments);
}

}  // namespace tolvar
