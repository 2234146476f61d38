#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/status.h>

#include <memory>

namespace tolvar::v1 {
class PageRequest;
}

namespace tolvar {

/// The methods that answer pages.
inline constexpr const char* kDownloadPageMethod = "/tolvar.v1.TolvarObj/DownloadPage";
inline constexpr const char* kFirstDownloadPageMethod = "/tolvar.v1.FTolvarObj/FirstDownloadPage";

/// Asks for a page and blocks until the answer's bytes are there, unparsed: decoding them directly
/// is several times as fast as by way of a message object. Any thread.
grpc::Status callForPage(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                         grpc::ClientContext& context, const v1::PageRequest& request,
                         grpc::ByteBuffer& answer);

}  // namespace tolvar
