#include "tools/tolvar/client_options.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <filesystem>

#include "platform/exception.h"
#include "tools/shared/host_port.h"
#include "tools/tolvar/service_endpoints.h"

namespace tolvar::tools {
namespace {

void makeAbsolute(std::string& path) {
  if (!path.empty()) path = std::filesystem::absolute(path).string();
}

/// The client answers without its log as well, but somebody asked for it. Throws
/// qel::ZU_Exception.
void requireLogFile(const std::string& below) {
  const std::filesystem::path directory = std::filesystem::path(below) / "Tolvar" / "API";
  std::error_code ignored;  // the file says it as well
  std::filesystem::create_directories(directory, ignored);
  const std::string file = directory / "Tolvar.API.log";
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (descriptor < 0)
    throw qel::ZU_Exception("--log: " + file + " cannot be written; name another directory", errno);
  close(descriptor);
}

}  // namespace

CLI::Option* ClientOptions::declareService(CLI::App& app) {
  CLI::Option* const endpoints = app.add_option_function<std::vector<std::string>>(
      "--service",
      [this](const std::vector<std::string>& lists) { service.endpoints = parseEndpoints(lists); },
      "The service to ask, tolvard's address; may be repeated, or several with commas between");
  endpoints->allow_extra_args(false)->type_name("HOST:PORT");
  app.add_option("--tls-ca", service.caFile, "Authorities of the service's certificate: encrypts")
      ->needs("--service")
      ->type_name("FILE");
  app.add_option("--tls-cert", service.certFile, "Certificate to show to the service")
      ->needs("--tls-ca")
      ->type_name("FILE");
  app.add_option("--tls-key", service.keyFile, "Key of that certificate")
      ->needs("--tls-cert")
      ->type_name("FILE");
  app.add_option("--tls-name", service.authority,
                 "Name in the service's certificate, when it is not the host")
      ->needs("--tls-ca")
      ->type_name("NAME");
  return endpoints;
}

void ClientOptions::declareHost(CLI::App& app) {
  app.add_option_function<std::string>(
         "--keys", [this](const std::string& text) { keys = parseKeys(text); },
         "Three System V shared-memory keys to keep the image under after the run "
         "(default: keys of this run's own, removed at its end)")
      ->type_name("KEY,KEY,KEY");
  app.add_option("--log", logPath,
                 "Keep the client's log below this directory (default: removed at the end)")
      ->type_name("DIR");
}

ClientOptions ClientOptions::resolved() const {
  ClientOptions absolute = *this;
  for (std::string& endpoint : absolute.service.endpoints) endpoint = withAbsolutePath(endpoint);
  makeAbsolute(absolute.logPath);
  for (std::string* file :
       {&absolute.service.caFile, &absolute.service.certFile, &absolute.service.keyFile})
    makeAbsolute(*file);
  return absolute;
}

std::unique_ptr<PrivateRun> ClientOptions::makeRun() const {
  if (!logPath.empty()) requireLogFile(logPath);
  return keys ? std::make_unique<PrivateRun>(*keys) : std::make_unique<PrivateRun>();
}

}  // namespace tolvar::tools
