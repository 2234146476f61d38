#pragma once

#include <memory>
#include <string>
#include <vector>

#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/page_codec.h"

namespace tolvar_bench {

inline constexpr const char* kMainName = "Bench.LookupServer.TolvarObj@tcp";
inline constexpr const char* kFastName = "Bench.LookupServer.FTolvarObj@tcp";
inline constexpr std::uint32_t kPageRecords = 50000;

/// How a host reaches the service at `address`.
tolvar::GrpcOptions hostOptions(const std::string& address);

/// Downloads the table page by page, as a client does; `each` sees every page with the request that
/// brought it.
template <class Each>
void download(ravel::FTolvarProxy& proxy, Each each) {
  std::uint64_t cursor = 0;
  std::uint64_t end = 1;
  while (cursor < end) {
    const tolvar::wire::PageQuery query{static_cast<std::uint32_t>(cursor >> 32),
                                        static_cast<std::uint32_t>(cursor), kPageRecords};
    ravel::downloadInfo page;
    proxy.FirstTotalDownloadIPInfo(query.high, query.low, query.size, page);
    if (page.IPContent.empty()) return;
    each(query, page);
    const ravel::IPProperty& last = page.IPContent.back();
    cursor = std::uint64_t{last.timesTamp} << 32 | last.sequence;
    end = std::uint64_t{page.highMaxIndex} << 32 | page.lowMaxIndex;
  }
}

/// The requests of a whole download.
std::vector<tolvar::wire::PageQuery> pageQueries(const std::string& address);

}  // namespace tolvar_bench
