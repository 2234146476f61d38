#include "bench/net_report.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tolvar_bench {
namespace {

constexpr const char* kIntroduction =
    "# Performance over the network\n"
    "\n"
    "This page is written by `scripts/bench_net.sh`; run it to have the figures of your machine.\n"
    "\n"
    "Service, hosts and checks are processes of their own on one machine and talk over loopback,\n"
    "without TLS. Times are the smallest of several repetitions; CPU times are those of the whole\n"
    "process, the kernel's work for it included. A busy machine shows in every figure.\n"
    "\n";

struct Row {
  const char* what;
  const char* figure;
  double scale;
  const char* format;
};

void printRows(const Figures& figures, std::initializer_list<Row> rows) {
  std::printf("| what | value |\n|---|---:|\n");
  for (const Row& row : rows) {
    char value[64];
    std::snprintf(value, sizeof value, row.format, figures.at(row.figure) * row.scale);
    std::printf("| %s | %s |\n", row.what, value);
  }
  std::printf("\n");
}

void printGoal(const char* goal, double value, double most, const char* format) {
  char text[64];
  char limit[64];
  std::snprintf(text, sizeof text, format, value);
  std::snprintf(limit, sizeof limit, format, most);
  std::printf("| %s | at most %s | %s | %s |\n", goal, limit, text,
              value <= most ? "met" : "missed");
}

void printGoals(const Figures& f) {
  std::printf("## Goals\n\n| goal | bar | measured | |\n|---|---:|---:|---|\n");
  printGoal("download and decode the table, to a bare echo of the same bytes",
            f.at("cold.download_ms") / f.at("cold.echo_ms"), 1.5, "%.2f");
  printGoal("decode a page of 50,000 records, ms", f.at("decode.direct_ms"), 0.7, "%.2f");
  printGoal("CPU per page, the service's to a starting client's",
            f.at("hosts.server_ms_per_page") / f.at("start.cpu_ms_per_page"), 0.15, "%.2f");
  printGoal("CPU per page, the service's to that of hosts that only decode",
            f.at("hosts.server_ms_per_page") / f.at("hosts.client_ms_per_page"), 0.15, "%.2f");
  std::printf("\n");
}

void printMachine() {
  double load[1] = {0};
  getloadavg(load, 1);
  std::printf(
      "Machine: %ld processors; load average at the end %.2f, the benchmark's own included.\n\n",
      sysconf(_SC_NPROCESSORS_ONLN), load[0]);
}

void printDownload(const Figures& f) {
  std::printf(
      "## A cold start\n\n"
      "`echo` sends every page's bytes in a bare gRPC call and gets them back; `one way` sends a\n"
      "short request and gets as many bytes. Both use channels with gRPC's default settings and "
      "drop\n"
      "what they get. `parser` is the decoder that\n"
      "goes by way of the generated messages. A start lasts from the construction of a client\n"
      "without an image until `initialize` has answered true and the table stands in both "
      "segments;\n"
      "the rest is the client's own work: digest, index, shared memory.\n\n");
  printRows(f, {{"pages", "table.pages", 1, "%.0f"},
                {"bytes of all pages", "table.bytes", 1, "%.0f"},
                {"bare echo, ms", "cold.echo_ms", 1, "%.1f"},
                {"bare bytes, one way, ms", "cold.bare_ms", 1, "%.1f"},
                {"download and decode, ms", "cold.download_ms", 1, "%.1f"},
                {"decode a page, ms", "decode.direct_ms", 1, "%.2f"},
                {"decode a page by parser, ms", "decode.parser_ms", 1, "%.2f"},
                {"copy the bytes of a page, ms", "decode.memcpy_ms", 1, "%.3f"},
                {"start, ms", "start.total_ms", 1, "%.0f"},
                {"- configuration, with the connection", "start.conf_ms", 1, "%.1f"},
                {"- change checks", "start.checks_ms", 1, "%.1f"},
                {"- pages", "start.pages_ms", 1, "%.1f"},
                {"- code tables", "start.codes_ms", 1, "%.1f"},
                {"- rest", "start.rest_ms", 1, "%.1f"},
                {"CPU of a start per page, ms", "start.cpu_ms_per_page", 1, "%.1f"}});
}

void printHosts(const NetBenchOptions& options, const Figures& f) {
  std::printf(
      "## %d hosts at once\n\n"
      "All have a connection of their own, got a reset, and fetch %d pages each. `decoding` hosts\n"
      "make records of them as clients do, `receiving` ones drop the bytes. The hosts share one\n"
      "thread, so that they rather than the service limit the pages per second. A client does "
      "more\n"
      "with its pages than these hosts: see the CPU of a start above. `bare` is a gRPC\n"
      "service that sends as many bytes, kept in one piece, to hosts that decode as many pages:\n"
      "what is beyond it is the lookup service's own. Memory is that of the service's process,\n"
      "table, wire form and connections included.\n\n",
      options.hosts, options.pages);
  printRows(f, {{"pages per second, decoding", "hosts.pages_per_second", 1, "%.0f"},
                {"pages per second, receiving", "receivers.pages_per_second", 1, "%.0f"},
                {"service CPU per page, ms", "hosts.server_ms_per_page", 1, "%.3f"},
                {"- of it in the kernel, ms", "hosts.server_kernel_ms_per_page", 1, "%.3f"},
                {"bare service CPU per page, ms", "bare.server_ms_per_page", 1, "%.3f"},
                {"- of it in the kernel, ms", "bare.server_kernel_ms_per_page", 1, "%.3f"},
                {"CPU per page, the bare service's to its hosts'", "bare.share", 1, "%.2f"},
                {"host CPU per page, decoding, ms", "hosts.client_ms_per_page", 1, "%.3f"},
                {"host CPU per page, receiving, ms", "receivers.client_ms_per_page", 1, "%.3f"},
                {"memory, all connected, MB", "hosts.server_connected_bytes", 1e-6, "%.0f"},
                {"peak memory, MB", "hosts.server_peak_bytes", 1e-6, "%.0f"}});
}

void printChecks(const Figures& f) {
  std::printf(
      "## Change checks\n\n"
      "16 hosts ask one question after the other, on one core; `beside downloads`: 8 connections\n"
      "fetch and decode pages without a pause on another core. The service may use both.\n\n");
  printRows(f, {{"checks per second", "checks.idle.per_second", 1, "%.0f"},
                {"median, ms", "checks.idle.p50_ms", 1, "%.2f"},
                {"p99, ms", "checks.idle.p99_ms", 1, "%.2f"},
                {"checks per second beside downloads", "checks.per_second", 1, "%.0f"},
                {"median, ms", "checks.p50_ms", 1, "%.2f"},
                {"p99, ms", "checks.p99_ms", 1, "%.2f"}});
}

}  // namespace

void printNetReport(const NetBenchOptions& options, const Figures& figures) {
  std::printf("%s", kIntroduction);
  printMachine();
  std::printf("Table: %zu synthetic ranges (`bench/support/synthetic_table.h`).\n\n",
              options.ranges);
  printGoals(figures);
  printDownload(figures);
  printHosts(options, figures);
  printChecks(figures);
}

}  // namespace tolvar_bench
