#include "tests/faults/host_life.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tolvar_test {
namespace {

constexpr std::size_t kRanges[] = {0, 25, 60, 30};  ///< of each version
constexpr std::size_t kLeastRanges = 25;
constexpr int kManyCodes = 40;
constexpr int kPasses = 90;

Table versionTable(std::uint32_t version) {
  Table table = selfCheckingTable(version, kRanges[version]);
  // The second version needs larger regions for its names as well.
  if (version == 2)
    for (int id = 0; id < kManyCodes; ++id) table.codes.push_back(code(5, id, "extend"));
  return table;
}

/// Marks the calls that a host makes on its own thread.
class InClient {
 public:
  explicit InClient(FaultSource& faults) : _faults(faults) { _faults.enterClient(true); }
  ~InClient() { _faults.enterClient(false); }
  InClient(const InClient&) = delete;
  InClient& operator=(const InClient&) = delete;

 private:
  FaultSource& _faults;
};

std::size_t entriesOf(const char* directory) {
  using Iterator = std::filesystem::directory_iterator;
  return static_cast<std::size_t>(std::distance(Iterator(directory), Iterator()));
}

std::size_t mappedLines() {
  std::ifstream in("/proc/self/maps");
  std::size_t found = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.find("SYSV") != std::string::npos || line.find("downloadPos") != std::string::npos)
      ++found;
  }
  return found;
}

std::size_t straySegments(const ShmKeys& keys) {
  std::ifstream in("/proc/sysvipc/shm");
  std::string line;
  std::getline(in, line);
  std::size_t found = 0;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    long key = 0, id = 0, mode = 0, size = 0, creator = 0;
    fields >> key >> id >> mode >> size >> creator;
    if (creator == getpid() && (key < keys.data0() || key > keys.size())) ++found;
  }
  return found;
}

/// Threads of this process that are not at their end: the system lists one for a moment after it
/// has been joined.
std::size_t liveThreads() {
  constexpr unsigned long kExiting = 4;  // PF_EXITING of the kernel
  std::size_t found = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream in(thread.path() / "stat");
    std::string line;
    if (!std::getline(in, line)) continue;
    // NUMBER (NAME) STATE PARENT GROUP SESSION TERMINAL TERMINAL-GROUP FLAGS ...
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    unsigned long flags = 0;
    for (int i = 0; i < 6; ++i) fields >> skipped;
    fields >> flags;
    if ((flags & kExiting) == 0) ++found;
  }
  return found;
}

}  // namespace

Holdings Holdings::now(const ShmKeys& keys) {
  return {entriesOf("/proc/self/fd"), mappedLines(), liveThreads(), straySegments(keys)};
}

std::string Holdings::moreThan(const Holdings& before) const {
  std::ostringstream text;
  if (descriptors > before.descriptors)
    text << descriptors - before.descriptors << " descriptors left open\n";
  if (mappings > before.mappings) text << mappings - before.mappings << " mappings left\n";
  if (threads > before.threads) text << threads - before.threads << " threads left\n";
  if (strays > before.strays) text << strays - before.strays << " segments left\n";
  return text.str();
}

void HostLife::complain(const std::string& what) { _problems += what + "\n"; }

TolvarAPIOptions HostLife::options() {
  return {&_communicator,
          "Geo.Main.TolvarObj@tcp",
          "Geo.Fast.FTolvarObj@tcp",
          _keys.data0(),
          _keys.data1(),
          ".",
          _keys.size(),
          false};
}

std::string HostLife::live() {
  const Holdings before = Holdings::now(_keys);
  _faults.begin();
  bool healed = false;
  {
    auto client = std::make_unique<Client>(_clock);
    _server.publish(versionTable(1));
    start(*client);
    reach(*client, 1);
    reach(*client, 2);
    // What failed so far is over; the last version is published on a healthy host, unless the fault
    // comes only now.
    healed = _faults.fired();
    if (healed) _faults.heal();
    reach(*client, 3);
    destroy(std::move(client));
  }
  restart(healed);
  const Holdings after = Holdings::now(_keys);
  _problems += after.moreThan(before);
  return _problems;
}

bool HostLife::initialize(Client& client) {
  const TolvarAPIOptions with = options();
  const InClient entered(_faults);
  return client.initialize(with);
}

void HostLife::start(Client& client) {
  if (initialize(client)) return;
  if (!_faults.fired()) complain("a start failed though nothing had: " + client.status().lastError);
  if (initialize(client)) return;
  _faults.heal();
  if (!initialize(client)) complain("no start on a healthy host");
}

void HostLife::reach(Client& client, std::uint32_t version) {
  if (version > 1) _server.publish(versionTable(version));
  for (int attempt = 0; attempt < 2; ++attempt) {
    for (int pass = 0; pass < kPasses; ++pass) {
      if (!_clock.awaitRest()) return complain("the update thread does not come to rest");
      checkAnswers(client, "while tables are replaced");
      if (holds(client, version)) return;
      _clock.advance(pass == 0 ? 601000 : pass < 20 ? 1000 : 30000);
    }
    _faults.heal();
  }
  complain("version " + std::to_string(version) +
           " is never reached; last error: " + client.status().lastError);
}

bool HostLife::holds(Client& client, std::uint32_t version) {
  return client.status().digest == _server.digest() &&
         client.getOperByID(version) == "v" + std::to_string(version) + " oper";
}

void HostLife::checkAnswers(Client& client, const char* when) {
  const std::uint32_t before = _seen;
  for (std::uint32_t i = 0; i < kLeastRanges; ++i) {
    const std::uint32_t ip = kFirstAddress + i * 256;
    ravel::IPInfo info;
    bool found = false;
    {
      const InClient entered(_faults);
      found = client.getIPInfo(ip, &info);
    }
    const std::uint32_t version = found ? versionOf(ip, info) : 0;
    if (version == 0) {
      const TolvarStatus status = client.status();
      return complain((found ? "a wrong answer " : "no answer ") + std::string(when) + " from " +
                      std::to_string(status.ranges) + " ranges, last seen version " +
                      std::to_string(_seen) + ", last error: " + status.lastError);
    }
    if (i > 0 && version != _seen) return complain(std::string("answers of two versions ") + when);
    _seen = version;
  }
  if (_seen < before) complain(std::string("an older version answers ") + when);
  checkNames(client, when);
}

void HostLife::checkNames(Client& client, const char* when) {
  IPHumanMessage message;
  bool found = false;
  {
    const InClient entered(_faults);
    found = client.getIPInfo(kFirstAddress, &message);
  }
  // Names and ids come over one after the other, so a name may be missing for a pass. Without
  // memory for the text there is none either.
  const std::string name = "v" + std::to_string(_seen) + " oper";
  if (!found && !_faults.fired()) complain(std::string("no names ") + when);
  if (found && !message.m_oper.empty() && message.m_oper != name)
    complain("the name \"" + message.m_oper + "\" " + when);
}

void HostLife::destroy(std::unique_ptr<Client> client) {
  const InClient entered(_faults);
  client.reset();
}

void HostLife::restart(bool healed) {
  _server.setDown(true);
  auto client = std::make_unique<Client>(_clock);
  bool started = initialize(*client);
  // A fault that came after the last version may still go on, and have cost its publication.
  if (!started && (healed || !_faults.fired()))
    complain("no start from the image; last error: " + client->status().lastError);
  if (!started) {
    _server.setDown(false);
    start(*client);
  }
  checkAnswers(*client, "after a restart");
  if (_seen != 3) complain("a restart answers from version " + std::to_string(_seen));
  destroy(std::move(client));
}

}  // namespace tolvar_test
