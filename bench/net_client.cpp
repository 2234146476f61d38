#include "bench/net_client.h"

namespace tolvar_bench {

tolvar::GrpcOptions hostOptions(const std::string& address) {
  tolvar::GrpcOptions options;
  options.endpoints = {{kMainName, {address}}, {kFastName, {address}}};
  return options;
}

std::vector<tolvar::wire::PageQuery> pageQueries(const std::string& address) {
  tolvar::GrpcCommunicator communicator(hostOptions(address));
  ravel::FTolvarPrx proxy;
  communicator.stringToProxy(kFastName, proxy);
  std::vector<tolvar::wire::PageQuery> queries;
  download(*proxy, [&](const tolvar::wire::PageQuery& query, const ravel::downloadInfo&) {
    queries.push_back(query);
  });
  return queries;
}

}  // namespace tolvar_bench
