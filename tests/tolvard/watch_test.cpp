#include <gmock/gmock.h>
#include <sys/shm.h>

#include <chrono>
#include <csignal>
#include <filesystem>

#include "tests/support/shm_keys.h"
#include "tests/tolvard/watch_fixture.h"
#include "tests/transport_grpc/test_ports.h"

namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
using tolvar_test::ChildProcess;
using tolvar_test::DeadPort;
using tolvar_test::fieldOf;
using tolvar_test::ShmKeys;
using tolvar_test::TolvardProcess;
using tolvar_test::ToolRun;

/// Shared-memory segments that a process made and that are still there.
int segmentsMadeBy(pid_t process) {
  shm_info all{};
  const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&all));
  int count = 0;
  for (int i = 0; i <= last; ++i) {
    shmid_ds segment{};
    if (shmctl(i, SHM_STAT, &segment) >= 0 && segment.shm_cpid == process) ++count;
  }
  return count;
}

std::string keyList(const ShmKeys& keys) {
  return std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) + "," +
         std::to_string(keys.size());
}

class Watch : public tolvar_test::WatchFixture {
 protected:
  /// The signal ends the client with `status` within a second, to which a busy machine may add
  /// another, and nothing of it is left.
  static void expectEnd(ChildProcess& client, int signal, int status) {
    const pid_t process = client.id();
    const auto directory =
        std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/cwd");
    ASSERT_THAT(directory.string(), HasSubstr("tolvar-"));
    const auto begin = steady_clock::now();
    client.signal(signal);
    EXPECT_EQ(client.awaitExit(), status);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_EQ(segmentsMadeBy(process), 0);
    EXPECT_FALSE(std::filesystem::exists(directory));
  }
};

TEST_F(Watch, ShowsTheStartAndEveryChange) {
  import(TOLVAR_SAMPLE);
  TolvardProcess service(database());
  ChildProcess client(watch({"--service", service.address()}));
  const std::string first = client.awaitLine("time=");
  EXPECT_EQ(fieldOf(first, "ready"), "no");
  EXPECT_EQ(fieldOf(first, "digest"), "none");
  const std::string up = client.awaitLine("ready=yes");
  EXPECT_EQ(fieldOf(up, "digest"), newestDigest());
  EXPECT_EQ(fieldOf(up, "ranges"), "40");
  EXPECT_EQ(fieldOf(up, "names"), "94");
  EXPECT_EQ(fieldOf(up, "last_error"), "none");
  const std::string checked = client.awaitLine("ready=yes");
  EXPECT_GT(fieldOf(checked, "last_check"), fieldOf(up, "last_check"));
  service.signal(SIGKILL);
  EXPECT_THAT(client.awaitLine("failing=yes"), HasSubstr("last_error=\"change check: "));
  importText(rows(7, "Funk"));
  const TolvardProcess again(database(), {}, service.address());
  EXPECT_THAT(client.awaitLine("failing=no"), HasSubstr("last_error=\"change check: "));
  awaitDigest(client, newestDigest());
}

TEST_F(Watch, JsonIsOneObjectALine) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  ChildProcess client(watch({"--service", service.address(), "--json"}));
  const auto first = nlohmann::json::parse(client.awaitLine("{"));
  EXPECT_EQ(first.at("ready"), false);
  EXPECT_TRUE(first.at("digest").is_null());
  const auto up = nlohmann::json::parse(client.awaitLine("\"ready\":true"));
  EXPECT_EQ(up.at("digest"), newestDigest());
  EXPECT_EQ(up.at("ranges"), 40);
}

TEST_F(Watch, AServiceThatComesLaterIsFollowed) {
  import(TOLVAR_SAMPLE);
  TolvardProcess gone(database());
  gone.signal(SIGKILL);
  gone.awaitExit();
  ChildProcess client(watch({"--service", gone.address()}));
  EXPECT_EQ(fieldOf(client.awaitLine("last_error=\""), "ready"), "no");
  const TolvardProcess service(database(), {}, gone.address());
  awaitDigest(client, newestDigest());
}

TEST_F(Watch, UntilDigestWaitsForARollOut) {
  import(TOLVAR_SAMPLE);
  importText(rows(7, "Funk"));
  const std::string wanted = newestDigest();
  ASSERT_EQ(tolvard({"rollback", "1"}).exitStatus, 0);
  const TolvardProcess service(database());
  ChildProcess client(
      watch({"--service", service.address(), "--until-digest", wanted, "--for", "60"}));
  awaitDigest(client, newestDigest());
  ASSERT_EQ(tolvard({"rollback", "2"}).exitStatus, 0);
  EXPECT_EQ(client.awaitExit(), 0);
  client.awaitLine("ready=yes digest=" + wanted);
}

TEST_F(Watch, ADigestThatDoesNotComeIsStatusOne) {
  import(TOLVAR_SAMPLE);
  TolvardProcess service(database());
  const ToolRun timed =
      runWatch({"--service", service.address(), "--until-digest", "00000000", "--for", "0.3"});
  EXPECT_EQ(timed.exitStatus, 1) << timed.err;
  // A script that is told to stop must not take the digest for arrived.
  ChildProcess told(watch({"--service", service.address(), "--until-digest", "00000000"}));
  told.awaitLine("ready=yes");
  expectEnd(told, SIGTERM, 1);
}

TEST_F(Watch, ForEndsItWithStatusZero) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  const auto begin = steady_clock::now();
  EXPECT_EQ(runWatch({"--service", service.address(), "--for", "0.5"}).exitStatus, 0);
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(Watch, ASignalEndsAClientThatIsUp) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  for (const int signal : {SIGINT, SIGTERM}) {
    ChildProcess client(watch({"--service", service.address()}));
    client.awaitLine("ready=yes");
    EXPECT_GT(segmentsMadeBy(client.id()), 0);
    expectEnd(client, signal, 0);
  }
}

TEST_F(Watch, ASignalEndsAClientWhoseServiceDoesNotAnswer) {
  const DeadPort refusing;
  const DeadPort silent(true);
  for (const std::string& address : {refusing.address(), silent.address()}) {
    ChildProcess client(watch({"--service", address}));
    client.awaitLine("ready=no");
    expectEnd(client, SIGTERM, 0);
  }
}

TEST_F(Watch, AReaderThatHasSeenEnoughEndsIt) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  const ToolRun run = tolvar_test::runTool(
      "/bin/sh", {"-c", std::string(TOLVAR_TOOL) + " watch --time-scale 600 --service " +
                            service.address() + " | head -n 1"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(fieldOf(run.out, "ready"), "no");
}

TEST_F(Watch, OutputThatIsLostEndsItWithStatusTwo) {
  for (const char* more : {"", " --until-digest 00000000"}) {
    const ToolRun run = tolvar_test::runTool(
        "/bin/sh", {"-c", std::string(TOLVAR_TOOL) + " watch --service 127.0.0.1:1 --for 30" +
                              more + " >/dev/full"});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(run.err, "tolvar: standard output: No space left on device\n");
  }
}

TEST_F(Watch, WithKeysTheImageStaysForOthers) {
  import(TOLVAR_SAMPLE);
  const ShmKeys keys;
  std::string address;
  {
    const TolvardProcess service(database());
    address = service.address();
    ChildProcess client(watch({"--service", address, "--keys", keyList(keys)}));
    awaitDigest(client, newestDigest());
    client.signal(SIGTERM);
    EXPECT_EQ(client.awaitExit(), 0);
  }
  // From here on there is no service, only the image.
  EXPECT_EQ(lookup({"--service", address, "--keys", keyList(keys), "8.8.8.8"}).exitStatus, 0);
  ChildProcess late(watch({"--service", address, "--keys", keyList(keys)}));
  awaitDigest(late, newestDigest());
}

TEST_F(Watch, FaultsInFlagsAreSaid) {
  EXPECT_THAT(runWatch({}).err, HasSubstr("--service"));
  for (const char* digest : {"1234567", "a60af997181be27231efed38712fa3960", "not hexadecimal"}) {
    const ToolRun run = runWatch({"--service", "127.0.0.1:1", "--until-digest", digest});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_THAT(run.err, HasSubstr("is no digest"));
  }
  for (const char* seconds : {"-1", "0", "nan", "inf", "1e10", "soon", ""}) {
    const ToolRun run = runWatch({"--service", "127.0.0.1:1", "--for", seconds});
    EXPECT_EQ(run.exitStatus, 2) << seconds;
    EXPECT_THAT(run.err, HasSubstr("--for: ")) << seconds;
  }
  const ToolRun scale =
      tolvar_test::runTool(TOLVAR_TOOL, {"watch", "--service", "127.0.0.1:1", "--time-scale", "0"});
  EXPECT_THAT(scale.err, HasSubstr("--time-scale: \"0\" is no scale"));
  EXPECT_EQ(runWatch({"--service", "127.0.0.1:1", "--tls-ca", "no.pem"}).exitStatus, 2);
  const ToolRun keys = runWatch({"--service", "127.0.0.1:1", "--keys", "0,0,0"});
  EXPECT_EQ(keys.exitStatus, 2);
  EXPECT_THAT(keys.err, HasSubstr("shm_key_1"));
}

TEST_F(Watch, TheScaleOfTestsIsNotInTheHelp) {
  const ToolRun help = runWatch({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_THAT(help.out, HasSubstr("--until-digest"));
  EXPECT_THAT(help.out, Not(HasSubstr("time-scale")));
}

}  // namespace
