// Processes on one image, killed at random times. See scripts/soak.sh.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>

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

enum Option {
  kMinutes = 256,
  kKills,
  kProcesses,
  kPublish,
  kKill,
  kSeed,
  kSmall,
  kVerbose,
  kHelp,
  kWorker,
  kLine,
  kKey,
  kControl
};

constexpr option kOptions[] = {
    {"minutes", required_argument, nullptr, kMinutes},
    {"kills", required_argument, nullptr, kKills},
    {"processes", required_argument, nullptr, kProcesses},
    {"publish-every", required_argument, nullptr, kPublish},
    {"kill-every", required_argument, nullptr, kKill},
    {"seed", required_argument, nullptr, kSeed},
    {"small", no_argument, nullptr, kSmall},
    {"verbose", no_argument, nullptr, kVerbose},
    {"help", no_argument, nullptr, kHelp},
    // How the program calls itself for one process.
    {"worker", required_argument, nullptr, kWorker},
    {"line", required_argument, nullptr, kLine},
    {"key", required_argument, nullptr, kKey},
    {"control", required_argument, nullptr, kControl},
    {nullptr, 0, nullptr, 0},
};

struct Arguments {
  tolvar_test::SoakOptions soak;
  tolvar_test::SoakWorkerOptions worker;
  bool isWorker = false;
  bool help = false;
};

double numberOf(const char* text, double least, double most) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(value >= least) || !(value <= most))
    throw std::invalid_argument("\"" + std::string(text) + "\" is no number that fits");
  return value;
}

void take(int which, const char* value, Arguments* arguments) {
  tolvar_test::SoakOptions& soak = arguments->soak;
  switch (which) {
    case kMinutes:
      soak.millis = static_cast<std::int64_t>(numberOf(value, 0.01, 1e5) * 60000);
      break;
    case kKills: soak.kills = static_cast<int>(numberOf(value, 1, 1e8)); break;
    case kProcesses: soak.processes = static_cast<int>(numberOf(value, 1, 64)); break;
    case kPublish:
      arguments->worker.checkMillis = soak.publishMillis =
          static_cast<int>(numberOf(value, 1, 600000));
      break;
    case kKill: soak.killMillis = static_cast<int>(numberOf(value, 1, 1e7)); break;
    case kSeed: soak.seed = static_cast<std::uint64_t>(numberOf(value, 0, 4294967295.0)); break;
    case kSmall: soak.small = true; break;
    case kVerbose: soak.verbose = true; break;
    case kHelp: arguments->help = true; break;
    case kWorker:
      arguments->worker.role = tolvar_test::soakRoleOf(value);
      arguments->isWorker = true;
      break;
    case kLine: arguments->worker.line = static_cast<int>(numberOf(value, 0, 63)); break;
    case kKey:
      arguments->worker.firstKey = static_cast<key_t>(numberOf(value, 1, 2147483647));
      break;
    case kControl: arguments->worker.controlFile = value; break;
    default: throw std::invalid_argument("unknown option");
  }
}

Arguments parse(int count, char** words) {
  Arguments arguments;
  arguments.soak.seed = std::random_device()();
  int which = 0;
  while ((which = getopt_long(count, words, "", kOptions, nullptr)) != -1)
    take(which, optarg, &arguments);
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
