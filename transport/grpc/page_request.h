#pragma once

#include "transport/grpc/page_codec.h"

namespace tolvar::v1 {
class PageRequest;
}

namespace tolvar {

/// The methods that answer pages.
inline constexpr const char* kDownloadPageMethod = "/tolvar.v1.TolvarObj/DownloadPage";
inline constexpr const char* kFirstDownloadPageMethod = "/tolvar.v1.FTolvarObj/FirstDownloadPage";

/// The message that asks for a page.
v1::PageRequest pageRequest(const wire::PageQuery& query);

}  // namespace tolvar
