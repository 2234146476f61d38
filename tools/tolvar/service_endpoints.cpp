#include "tools/tolvar/service_endpoints.h"

#include <CLI/CLI.hpp>

#include "service/text_source.h"
#include "tools/shared/host_port.h"

namespace tolvar::tools {
namespace {

bool isEndpoint(const std::string& text) {
  if (isUnixSocket(text)) return true;
  const auto parts = parseHostPort(text);
  return parts && parts->port != 0;
}

void addParts(const std::string& list, std::vector<std::string>* endpoints) {
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = list.find(',', begin);
    const std::string part = list.substr(begin, end - begin);
    if (!isEndpoint(part))
      throw CLI::ValidationError("--service",
                                 service::quoted(part) +
                                     " is no address; expected HOST:PORT with a port from 1 to "
                                     "65535, [IPV6]:PORT or unix:PATH");
    endpoints->push_back(part);
  }
}

}  // namespace

std::vector<std::string> parseEndpoints(const std::vector<std::string>& lists) {
  std::vector<std::string> endpoints;
  for (const std::string& list : lists) addParts(list, &endpoints);
  return endpoints;
}

}  // namespace tolvar::tools
