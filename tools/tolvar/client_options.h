#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tools/tolvar/key_list.h"
#include "tools/tolvar/private_run.h"
#include "tools/tolvar/remote_client.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tolvar::tools {

/// The flags of a command that runs a client: which service it asks, where its image and its log
/// are.
struct ClientOptions {
  ServiceAddress service;
  std::optional<ImageKeys> keys;  ///< of an image that stays; without, the run has keys of its own
  std::string logPath;

  /// Declares --service and the flags of its encryption; answers --service.
  CLI::Option* declareService(CLI::App& app);

  /// Declares --keys and --log.
  void declareHost(CLI::App& app);

  /// With absolute paths: a run moves to a directory of its own.
  ClientOptions resolved() const;

  /// Throws qel::ZU_Exception, also when the log cannot be written.
  std::unique_ptr<PrivateRun> makeRun() const;

  /// Where the client logs: where it was asked to, else where `run` removes it.
  const std::string& logPathIn(const PrivateRun& run) const {
    return logPath.empty() ? run.directory() : logPath;
  }
};

}  // namespace tolvar::tools
