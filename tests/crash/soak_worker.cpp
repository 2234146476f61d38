#include "tests/crash/soak_worker.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/crash/answer_check.h"
#include "tests/crash/soak_control.h"
#include "tests/src/update/table_server.h"
#include "tests/support/client_test_access.h"
#include "tests/support/fake_service.h"
#include "tools/tolvar/paced_clock.h"

namespace tolvar_test {
namespace {

/// A client asks for changes every so often, in milliseconds of its own clock.
constexpr int kCheckPeriod = 600000;
constexpr int kStarterRounds = 50;
/// A start that finds no image and a service that answers must succeed; a few that do not are
/// those that ran into the time that the lock may take.
constexpr int kFailedStartsInARow = 5;
constexpr int kAgreeMillis = 10000;

/// The service as one process sees it: the version of the control file, in process.
class SoakService {
 public:
  SoakService(SoakControl& control, SoakRole role) : _control(control) {
    const auto check = _service->checkChange;
    _service->checkChange = [this, check, role](const ravel::CheckReq& req,
                                                ravel::CheckInfo& info) {
      follow();
      if (role == SoakRole::follower || req.contentMd5 == "0") check(req, info);
    };
    _server.beforePage = _server.beforeCodes = [this] { follow(); };
  }

  FakeCommunicator& communicator() { return _communicator; }

 private:
  /// On the client's update thread.
  void follow() {
    _service->forgetCalls();
    const std::uint32_t version = _control.version;
    if (version == _version) return;
    _server.publish(tableOf(soakVersion(version)));
    _version = version;
  }

  SoakControl& _control;
  std::shared_ptr<FakeService> _service = std::make_shared<FakeService>();
  TableServer _server{_service};
  FakeCommunicator _communicator{_service};
  std::uint32_t _version = 0;
};

class SoakWorker {
 public:
  explicit SoakWorker(const SoakWorkerOptions& options)
      : _options(options), _file(options.controlFile), _line(_file->lines[options.line]) {}

  int run() {
    int failures = 0;
    while (!_file->stop && failures < kFailedStartsInARow) {
      failures = oneClient() ? 0 : failures + 1;
      if (_line.problem[0] != '\0') return 1;
    }
    return failures == 0 ? 0 : 1;
  }

 private:
  TolvarAPIOptions options(SoakService& service) const {
    return {&service.communicator(),   "Geo.Main.TolvarObj@tcp",
            "Geo.Fast.FTolvarObj@tcp", _options.firstKey,
            _options.firstKey + 1,     "",
            _options.firstKey + 2,     false};
  }

  /// Starts a client and asks it; false when it did not start.
  bool oneClient() {
    tolvar::tools::PacedClock clock;
    SoakService service(*_file, _options.role);
    ClockedClient client(clock);
    if (!client.initialize(options(service))) {
      if (_file->stop) return true;
      ++_line.failedStarts;
      std::fprintf(stderr, "a start failed: %s\n", client.status().lastError.c_str());
      return false;
    }
    ++_line.starts;
    // Only now: the start has its real 30 seconds.
    clock.setPace(std::max(1, kCheckPeriod / _options.checkMillis));
    checkDigest(client);
    ask(client);
    return true;
  }

  /// The digest that the client holds is that of the version it answers. Both are asked for one
  /// after the other, so they need not agree while a table is being replaced.
  void checkDigest(TolvarAPI& client) {
    const std::int64_t end = qel::systemClock().steadyMillis() + kAgreeMillis;
    do {
      ravel::IPInfo info;
      const bool found = client.getIPInfo(kFirstAddress, &info);
      const std::uint32_t version = found ? versionOf(kFirstAddress, info) : 0;
      if (version == 0) return note("the first range is missing or mixed after a start");
      if (client.status().digest == digestOf(tableOf(soakVersion(version)).rows)) return;
    } while (qel::systemClock().steadyMillis() < end);
    note("the digest after a start is that of no version answered");
  }

  void ask(TolvarAPI& client) {
    AnswerCheck check(client, kSoakRows);
    std::uint64_t counted = 0;
    std::uint64_t published = 0;
    for (int i = 0; !_file->stop; ++i) {
      if (_options.role == SoakRole::starter && i == kStarterRounds) break;
      if (!check.round()) return note(check.problem());
      if (check.version() > _file->version) return note("an answer is of no version published");
      _line.lookups += check.lookups() - counted;
      counted = check.lookups();
      if (i % 64 == 0) countPublications(client, &published);
    }
    countPublications(client, &published);
  }

  void countPublications(const TolvarAPI& client, std::uint64_t* published) {
    const std::uint64_t now = client.status().publications;
    _line.publications += now - *published;
    *published = now;
  }

  void note(const std::string& problem) {
    ++_line.wrong;
    if (_line.problem[0] != '\0') return;
    std::strncpy(_line.problem, problem.c_str(), sizeof _line.problem - 1);
  }

  const SoakWorkerOptions _options;
  SoakControlFile _file;
  SoakLine& _line;
};

}  // namespace

SoakRole soakRoleOf(const std::string& name) {
  for (const SoakRole role : {SoakRole::follower, SoakRole::reader, SoakRole::starter})
    if (name == nameOf(role)) return role;
  throw std::runtime_error("unknown role \"" + name + "\"");
}

const char* nameOf(SoakRole role) {
  switch (role) {
    case SoakRole::follower: return "follower";
    case SoakRole::reader: return "reader";
    default: return "starter";
  }
}

int runSoakWorker(const SoakWorkerOptions& options) { return SoakWorker(options).run(); }

}  // namespace tolvar_test
