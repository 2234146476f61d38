#pragma once

#include <sys/types.h>

#include <string>

namespace qel {
class Communicator;
}

/// What a host gives to TolvarAPI::initialize.
struct TolvarAPIOptions {
  /// Makes the proxies; not owned, must outlive the client. Required.
  qel::Communicator* comm = nullptr;
  /// Name of the main object, ends in ".TolvarObj@tcp". Required.
  std::string ip_servant;
  /// Name of the object for the first download, ends in ".FTolvarObj@tcp". Required.
  std::string fast_ip_servant;
  /// System V key of data segment 0. Required: not 0, and different from the other two.
  key_t shm_key_1 = 0;
  /// System V key of data segment 1. Required.
  key_t shm_key_2 = 0;
  /// Directory of the rolling log; empty: no file, lines go to standard output and standard error.
  std::string log_path = "./";
  /// System V key of the size segment.
  key_t shm_key_3 = 600014;

  TolvarAPIOptions() = default;

  /// The trailing flag is accepted for compatibility and has no effect.
  TolvarAPIOptions(qel::Communicator* communicator, const std::string& mainObject,
                   const std::string& fastObject, key_t key1, key_t key2,
                   const std::string& logPath, key_t key3, bool /*unused*/)
      : comm(communicator),
        ip_servant(mainObject),
        fast_ip_servant(fastObject),
        shm_key_1(key1),
        shm_key_2(key2),
        log_path(logPath),
        shm_key_3(key3) {}
};
