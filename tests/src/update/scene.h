#pragma once

#include <memory>
#include <string>

#include "tests/src/update/output_lines.h"
#include "tests/src/update/segment_view.h"
#include "tests/src/update/table_server.h"
#include "tests/support/client_test_access.h"
#include "tests/support/fake_service.h"
#include "tests/support/manual_clock.h"
#include "tests/support/plant.h"
#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {

/// What surrounds a client: output taken, a working directory, keys, a scripted service.
/// Destroyed after the client.
struct Scene {
  Output output;
  WorkingDirectory directory;
  ShmKeys keys;
  std::shared_ptr<FakeService> service = std::make_shared<FakeService>();
  FakeCommunicator communicator{service};

  /// Options without a log file.
  TolvarAPIOptions options() {
    return {&communicator,
            "Geo.Main.TolvarObj@tcp",
            "Geo.Fast.FTolvarObj@tcp",
            keys.data0(),
            keys.data1(),
            "",
            keys.size(),
            false};
  }

  /// Options with a log file, and where that file is.
  TolvarAPIOptions loggingOptions() {
    TolvarAPIOptions with = options();
    with.log_path = directory.path();
    return with;
  }
  std::string logFile() const { return directory.file("Tolvar/API/Tolvar.API.log"); }

  /// Calls of the service whose text begins so, in order.
  std::vector<std::string> callsStarting(const std::string& start) const {
    std::vector<std::string> found;
    for (const std::string& call : service->calls())
      if (call.rfind(start, 0) == 0) found.push_back(call);
    return found;
  }
};

/// A client whose steps the test calls itself, on its own thread: proxies are in place, nothing was
/// started, no segment is attached yet. Waits move the clock.
struct LateScene : Scene {
  ManualClock clock{true};
  ClockedClient client{clock};
  tolvar::ClientTestAccess access{client};

  LateScene() {
    access.tolvarPrx() = fakeProxy(service);
    access.fTolvarPrx() = fakeFastProxy(service);
  }

  /// Looks for the image, as `initialize` does.
  void begin() { access.InitializeShareMemory(keys.data0(), keys.data1(), keys.size()); }

  /// Lets the next change check ask the service.
  void makeCheckDue() { access.lastCheckFileChanged() = 0; }

  /// A change check, then `finish`.
  bool refresh(int passes = 100) {
    makeCheckDue();
    access.checkChange();
    return finish(passes);
  }

  /// Passes of the update thread without a check, until the table is downloaded and the codes are
  /// fetched; false when that takes more than `passes`.
  bool finish(int passes = 100) {
    for (int i = 0; i < passes; ++i) {
      access.totalDownloadRequest();
      access.checkCodeChangeRequest();
      if (!access.isTotalDownLoading() && !access.isCheckingCode()) return true;
    }
    return false;
  }
};

/// The same, with small segments in place.
struct StepScene : LateScene {
  explicit StepScene(std::size_t ranges = 64, std::size_t codes = 8) {
    plantSmallSegments(keys, ranges, codes);
    begin();
    output.take();
  }
};

}  // namespace tolvar_test
