#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tolvar_bench {

/// What a part of the network benchmark measured: values by name.
using Figures = std::map<std::string, double>;

/// Where the server process of a benchmark listens.
struct NetTarget {
  std::string service;  ///< the lookup service
  std::string bare;     ///< answers any number of bytes, and does nothing else
  int pid = 0;
};

/// Serves a synthetic table of `ranges` ranges, says where on standard output, and ends with
/// standard input.
void runNetServer(std::size_t ranges);

/// The whole table beside the same bytes through bare calls, and the decoding alone.
Figures measureColdStart(const NetTarget& target);

/// A client without an image, from its construction until it answers, by phases. Once a process, by
/// the main thread, before anything of gRPC.
Figures measureStart(const NetTarget& target);

/// What hosts do: drop the pages of the service, turn them into records as clients do, or fetch as
/// many bytes from the bare service and decode a page of their own for each, which keeps the pace.
enum class HostWork { Receive, Decode, Bare };

/// `hosts` connections that all fetch `pages` pages at once.
Figures measureHosts(const NetTarget& target, int hosts, int pages, HostWork work);

/// Change checks of `hosts` connections in turn for `seconds`.
Figures measureChecks(const NetTarget& target, int hosts, int seconds);

/// Fetches the table again and again over 8 connections until standard input ends.
void runDownloads(const NetTarget& target);

}  // namespace tolvar_bench
