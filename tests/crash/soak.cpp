// Processes on one image, killed at random times. See scripts/soak.sh.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/crash/soak_supervisor.h"

namespace {

constexpr const char* kUsage =
    "usage: soak [options]\n"
    "\n"
    "  --minutes N        length of the run; decimals are allowed (default 1)\n"
    "  --kills N          end after as many kills, however long that takes\n"
    "  --processes N      (default 16)\n"
    "  --publish-every N  milliseconds between two versions of the service (default 1000)\n"
    "  --kill-every N     milliseconds between two kills, on average (default 5000)\n"
    "  --seed N           of the random times (default: another one each time; printed)\n"
    "  --small            begin with segments of a few megabytes instead of 70, so that more is\n"
    "                     published and killed in the same time\n"
    "  --verbose          show what the processes print\n"
    "\n"
    "Exits with 0 when nothing was wrong, 1 when something was, 2 for options it does not know.\n";

struct Arguments {
  tolvar_test::SoakOptions soak;
  tolvar_test::SoakWorkerOptions worker;
  bool isWorker = false;
  bool help = false;
};

template <class Number>
Number numberOf(const char* text, double least, double most) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(value >= least) || !(value <= most))
    throw std::invalid_argument("\"" + std::string(text) + "\" is no number that fits");
  return static_cast<Number>(value);
}

struct Option {
  const char* name;
  int argument;
  void (*take)(const char* value, Arguments* arguments);
};

constexpr Option kOptions[] = {
    {"minutes", required_argument,
     [](const char* value, Arguments* to) {
       to->soak.millis = static_cast<std::int64_t>(numberOf<double>(value, 0.01, 1e5) * 60000);
     }},
    {"kills", required_argument,
     [](const char* value, Arguments* to) { to->soak.kills = numberOf<int>(value, 1, 1e8); }},
    {"processes", required_argument,
     [](const char* value, Arguments* to) { to->soak.processes = numberOf<int>(value, 1, 64); }},
    {"publish-every", required_argument,
     [](const char* value, Arguments* to) {
       to->worker.checkMillis = to->soak.publishMillis = numberOf<int>(value, 1, 600000);
     }},
    {"kill-every", required_argument,
     [](const char* value, Arguments* to) { to->soak.killMillis = numberOf<int>(value, 1, 1e7); }},
    {"seed", required_argument,
     [](const char* value, Arguments* to) {
       to->soak.seed = numberOf<std::uint64_t>(value, 0, 4294967295.0);
     }},
    {"small", no_argument, [](const char*, Arguments* to) { to->soak.small = true; }},
    {"verbose", no_argument, [](const char*, Arguments* to) { to->soak.verbose = true; }},
    {"help", no_argument, [](const char*, Arguments* to) { to->help = true; }},
    // How the program calls itself for one process.
    {"worker", required_argument,
     [](const char* value, Arguments* to) {
       to->worker.role = tolvar_test::soakRoleOf(value);
       to->isWorker = true;
     }},
    {"line", required_argument,
     [](const char* value, Arguments* to) { to->worker.line = numberOf<int>(value, 0, 63); }},
    {"key", required_argument,
     [](const char* value, Arguments* to) {
       to->worker.firstKey = numberOf<key_t>(value, 1, 2147483647);
     }},
    {"control", required_argument,
     [](const char* value, Arguments* to) { to->worker.controlFile = value; }},
};

Arguments parse(int count, char** words) {
  Arguments arguments;
  arguments.soak.seed = std::random_device()();
  std::vector<option> options;
  for (const Option& known : kOptions) options.push_back({known.name, known.argument, nullptr, 0});
  options.push_back({});
  int which = 0;
  int status = 0;
  while ((status = getopt_long(count, words, "", options.data(), &which)) == 0)
    kOptions[which].take(optarg, &arguments);
  if (status != -1) throw std::invalid_argument("unknown option");
  if (optind != count)
    throw std::invalid_argument("unexpected \"" + std::string(words[optind]) + "\"");
  if (arguments.soak.millis == 0 && arguments.soak.kills == 0) arguments.soak.millis = 60000;
  return arguments;
}

}  // namespace

int main(int count, char** words) {
  try {
    const Arguments arguments = parse(count, words);
    if (arguments.help) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arguments.isWorker) return tolvar_test::runSoakWorker(arguments.worker);
    return tolvar_test::SoakSupervisor(arguments.soak).run() ? 0 : 1;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "soak: %s\n%s", error.what(), kUsage);
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
