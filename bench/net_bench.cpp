#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <stdexcept>
#include <thread>

#include "bench/net_cases.h"
#include "bench/net_process.h"
#include "bench/net_report.h"

/// Measures the service and its clients over loopback and prints the result as a page of Markdown:
/// a whole download beside bare calls with the same bytes, a start by phases, many hosts at once,
/// and change checks beside downloads. Service, hosts and checks are processes of their own.
///
///   net_bench [--ranges=524288] [--hosts=1000] [--pages=3]

namespace {

using namespace tolvar_bench;

void print(const Figures& figures) {
  for (const auto& [name, value] : figures) std::printf("%s %.9g\n", name.c_str(), value);
  std::fflush(stdout);
}

/// What the processes of the benchmark do.
int runRole(const std::vector<std::string>& arguments) {
  const std::string& role = arguments.at(0);
  if (role == "server") {
    runNetServer(std::stoul(arguments.at(1)));
    return 0;
  }
  const NetTarget target{arguments.at(1), arguments.at(2), std::stoi(arguments.at(3))};
  const auto number = [&](std::size_t i) { return std::stoi(arguments.at(i)); };
  if (role == "cold")
    print(measureColdStart(target));
  else if (role == "start")
    print(measureStart(target));
  else if (role == "hosts")
    print(measureHosts(target, number(4), number(5), HostWork{number(6)}));
  else if (role == "checks")
    print(measureChecks(target, number(4), number(5)));
  else if (role == "downloads")
    runDownloads(target);
  else
    return 2;
  return 0;
}

class Server {
 public:
  explicit Server(std::size_t ranges) : _process({"--role", "server", std::to_string(ranges)}) {
    _target.service = _process.readLine();
    _target.bare = _process.readLine();
    _target.pid = _process.pid();
    if (_target.bare.empty()) throw std::runtime_error("the server did not start");
  }

  std::vector<std::string> roleArguments(const std::string& role,
                                         const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"--role", role, _target.service, _target.bare,
                                       std::to_string(_target.pid)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  /// Runs a role in a process of its own and answers what it measured.
  Figures run(const std::string& role, const std::vector<std::string>& more = {},
              int cpu = -1) const {
    ChildProcess process(roleArguments(role, more), cpu);
    Figures figures;
    for (std::string line = process.readLine(); !line.empty(); line = process.readLine()) {
      const std::size_t space = line.find(' ');
      figures[line.substr(0, space)] = std::stod(line.substr(space + 1));
    }
    process.finish();
    return figures;
  }

 private:
  ChildProcess _process;
  NetTarget _target;
};

void add(const std::string& prefix, const Figures& from, Figures* to) {
  for (const auto& [name, value] : from) (*to)[prefix + name] = value;
}

/// The run whose figure `name` is the best of some.
Figures bestOf(int runs, const std::string& name, bool most, const std::function<Figures()>& run) {
  Figures best;
  for (int i = 0; i < runs; ++i) {
    Figures figures = run();
    if (best.empty() || (figures.at(name) > best.at(name)) == most) best = std::move(figures);
  }
  return best;
}

void measureAll(const NetBenchOptions& options, Figures* figures) {
  const Server server(options.ranges);
  add("", server.run("cold"), figures);
  add("start.", bestOf(3, "total_ms", false, [&] { return server.run("start"); }), figures);
  (*figures)["start.cpu_ms_per_page"] = figures->at("start.cpu_ms") / figures->at("table.pages");
  const std::string hosts = std::to_string(options.hosts);
  const std::string pages = std::to_string(options.pages);
  const auto runHosts = [&](HostWork work) {
    return server.run("hosts", {hosts, pages, std::to_string(static_cast<int>(work))});
  };
  add("hosts.", bestOf(2, "server_ms_per_page", false, [&] { return runHosts(HostWork::Decode); }),
      figures);
  add("receivers.",
      bestOf(2, "pages_per_second", true, [&] { return runHosts(HostWork::Receive); }), figures);
  add("bare.", bestOf(2, "server_ms_per_page", false, [&] { return runHosts(HostWork::Bare); }),
      figures);
  (*figures)["bare.share"] =
      figures->at("bare.server_ms_per_page") / figures->at("bare.client_ms_per_page");
  const bool cores = std::thread::hardware_concurrency() > 1;
  const std::vector<std::string> checks{"16", "2"};
  add("checks.idle.", server.run("checks", checks, cores ? 0 : -1), figures);
  ChildProcess downloads(server.roleArguments("downloads"), cores ? 1 : -1);
  add("checks.", server.run("checks", checks, cores ? 0 : -1), figures);
  downloads.finish();
}

NetBenchOptions parse(const std::vector<std::string>& arguments) {
  NetBenchOptions options;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const int value = equals == std::string::npos ? 0 : std::stoi(argument.substr(equals + 1));
    if (value <= 0)
      throw std::invalid_argument("usage: net_bench [--ranges=N] [--hosts=N] [--pages=N]");
    if (name == "--ranges")
      options.ranges = static_cast<std::size_t>(value);
    else if (name == "--hosts")
      options.hosts = value;
    else if (name == "--pages")
      options.pages = value;
    else
      throw std::invalid_argument("net_bench: there is no flag " + name);
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "--role")
      return runRole({arguments.begin() + 1, arguments.end()});
    const NetBenchOptions options = parse(arguments);
    Figures figures;
    measureAll(options, &figures);
    printNetReport(options, figures);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "net_bench: %s\n", error.what());
    return 1;
  }
}
