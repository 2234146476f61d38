#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

bool anySegment(const ShmKeys& keys) {
  for (const key_t key : {keys.data0(), keys.data1(), keys.size()})
    if (shmget(key, 0, 0) >= 0) return true;
  return false;
}

TEST(Options, HoldTheDefaultsThatHostsRelyOn) {
  const TolvarAPIOptions options;
  EXPECT_EQ(options.comm, nullptr);
  EXPECT_EQ(options.ip_servant, "");
  EXPECT_EQ(options.fast_ip_servant, "");
  EXPECT_EQ(options.log_path, "./");
  EXPECT_EQ(options.shm_key_3, 600014);
}

TEST(Options, TakeAllValuesInFieldOrder) {
  FakeCommunicator communicator(std::make_shared<FakeService>());
  const TolvarAPIOptions options(&communicator, "main", "fast", 1, 2, "log", 3, true);
  const TolvarAPIOptions copy = options;
  EXPECT_EQ(copy.comm, &communicator);
  EXPECT_EQ(copy.ip_servant, "main");
  EXPECT_EQ(copy.fast_ip_servant, "fast");
  EXPECT_EQ(copy.shm_key_1, 1);
  EXPECT_EQ(copy.shm_key_2, 2);
  EXPECT_EQ(copy.log_path, "log");
  EXPECT_EQ(copy.shm_key_3, 3);
}

TEST(Construction, SetsNothingInMotion) {
  TolvarAPI client;
  tolvar::ClientTestAccess access(client);
  EXPECT_EQ(access.hasInitialized(), 0);
  EXPECT_EQ(access.simpleKey(), 0);
  EXPECT_EQ(access.proxyHashKey(), 0);
  EXPECT_FALSE(access.terminated());
  EXPECT_TRUE(access.destructorWait());
  EXPECT_FALSE(access.isCheckingCode());
  EXPECT_FALSE(access.isTotalDownLoading());
  EXPECT_FALSE(access.isIncrementDownloading());
  EXPECT_EQ(access.isReset(), 0);
  EXPECT_EQ(access.cltMd5(), "0");
  EXPECT_EQ(access.lastCheckFileChanged(), 0);
  EXPECT_FALSE(client.isAlive());
}

TEST(Construction, LookupsBeforeInitializeFindNothing) {
  TolvarAPI client;
  ravel::IPInfo info;
  IPHumanMessage message;
  EXPECT_FALSE(client.getIPInfo(0x01020304u, &info));
  EXPECT_FALSE(client.getIPInfoFromStr("1.2.3.4", &message));
  EXPECT_EQ(client.getCountryByID(86), "");
}

TEST(Terminate, RaisesTheFlagAndNothingElse) {
  TolvarAPI client;
  tolvar::ClientTestAccess access(client);
  client.terminate();
  EXPECT_TRUE(access.terminated());
  EXPECT_FALSE(client.isAlive());
}

TEST(Initialize, SwappedMainNameReturnsFalseAtOnceWithTheServantLine) {
  Scene scene;
  TolvarAPIOptions options = scene.options();
  options.ip_servant = "Geo.Fast.FTolvarObj@tcp";
  options.fast_ip_servant = "Geo.Other";
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(options));
  scene.output.take();
  ASSERT_EQ(scene.output.out.size(), 1u);
  EXPECT_EQ(scene.output.out[0].text,
            "Please check the servantObj: TolvarObj is:Geo.Fast.FTolvarObj@tcp,FTolvarObj "
            "is:Geo.Other");
  EXPECT_GT(scene.output.out[0].number, 0);
  EXPECT_TRUE(scene.output.err.empty());
  // Nothing was set up.
  tolvar::ClientTestAccess access(client);
  EXPECT_EQ(access.tolvarPrx(), nullptr);
  EXPECT_EQ(access.fTolvarPrx(), nullptr);
  EXPECT_FALSE(client.isAlive());
  EXPECT_FALSE(anySegment(scene.keys));
  EXPECT_TRUE(scene.service->calls().empty());
  EXPECT_FALSE(std::filesystem::exists("downloadPos.dat"));
  EXPECT_TRUE(client.status().failing);
  EXPECT_EQ(client.status().lastError, "initialize: ip_servant and fast_ip_servant are swapped");
}

TEST(Initialize, SwappedFastNameReturnsFalseAtOnceWithTheServantLine) {
  Scene scene;
  TolvarAPIOptions options = scene.options();
  options.fast_ip_servant = "Geo.Main.TolvarObj@tcp";
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(options));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out,
                          "Please check the servantObj: TolvarObj is:"
                          "Geo.Main.TolvarObj@tcp,FTolvarObj is:"
                          "Geo.Main.TolvarObj@tcp")
                .size(),
            1u);
}

TEST(Initialize, SwappedNamesWithALogPathGoToTheFile) {
  Scene scene;
  TolvarAPIOptions options = scene.loggingOptions();
  options.ip_servant = "x.FTolvarObj@tcp";
  {
    TolvarAPI client;
    EXPECT_FALSE(client.initialize(options));
  }
  scene.output.take();
  EXPECT_TRUE(scene.output.out.empty());
  const OutputLines lines = parseLines(readFile(scene.logFile()));
  ASSERT_EQ(textsStarting(lines, "Please check the servantObj:").size(), 1u);
  EXPECT_NE(lines[0].header.find("DEBUG"), std::string::npos);
}

TEST(Initialize, NamesThatMerelyLackTheirSuffixPass) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  TolvarAPIOptions options = scene.options();
  options.ip_servant = "main";
  options.fast_ip_servant = "fast";
  TolvarAPI client;
  EXPECT_TRUE(client.initialize(options));
}

TEST(Initialize, EmptyLogPathWritesNoFileAndEveryMessageToStandardOutput) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(scene.options()));
  }
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "current download position is 0").size(), 1u);
  EXPECT_EQ(
      textsStarting(scene.output.out, "TolvarAPI initialize finish, m_has_initialized=3").size(),
      1u);
  EXPECT_GE(textsAt(scene.output.out, 722).size(), 1u);
  for (const OutputLine& line : scene.output.out) EXPECT_GT(line.number, 0) << line.text;
  EXPECT_TRUE(scene.output.err.empty());
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("."))
    files.push_back(entry.path().filename());
  EXPECT_EQ(files, std::vector<std::string>{"downloadPos.dat"});
}

TEST(Initialize, LogPathTakesEveryMessage) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(scene.loggingOptions()));
  }
  scene.output.take();
  EXPECT_TRUE(scene.output.out.empty());
  EXPECT_TRUE(scene.output.err.empty());
  const OutputLines lines = parseLines(readFile(scene.logFile()));
  const std::string digest = server.digest();
  EXPECT_EQ(textsStarting(lines, "TolvarAPI initialize finish, m_has_initialized=3, clt_md5=" +
                                     digest + ", cost=0s.")
                    .size() +
                textsStarting(lines, "TolvarAPI initialize finish, m_has_initialized=3, clt_md5=" +
                                         digest + ", cost=1s.")
                    .size(),
            1u);
  for (const OutputLine& line : lines) {
    EXPECT_GT(line.number, 0) << line.text;
    // Time in brackets, thread, level.
    EXPECT_EQ(line.header.front(), '[');
    EXPECT_EQ(std::count(line.header.begin(), line.header.end(), '|'), 3) << line.header;
  }
}

TEST(Initialize, KeepsACopyOfTheOptions) {
  Scene scene;
  TolvarAPIOptions options = scene.options();
  options.ip_servant = "x.FTolvarObj@tcp";
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(options));
  tolvar::ClientTestAccess access(client);
  EXPECT_EQ(access.initOptions().ip_servant, "x.FTolvarObj@tcp");
  EXPECT_EQ(access.initOptions().comm, &scene.communicator);
  EXPECT_EQ(access.initOptions().shm_key_1, scene.keys.data0());
  EXPECT_EQ(access.initOptions().shm_key_2, scene.keys.data1());
  EXPECT_EQ(access.initOptions().shm_key_3, scene.keys.size());
}

TEST(Initialize, LoadsTheConfigurationBeforeTheFirstCheck) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  scene.service->getConf = [](ravel::ClientConf& conf) {
    conf.confVersion = 12;
    conf.simpleLogCitys = {"b", "a", "b"};
  };
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(scene.options()));
  tolvar::ClientTestAccess access(client);
  const auto conf = access.clientConf().getQueryData();
  EXPECT_EQ(conf->conf.confVersion, 12);
  EXPECT_EQ(conf->citys, (std::set<std::string>{"a", "b"}));
  const auto checks = scene.callsStarting("checkChangeAdv");
  ASSERT_FALSE(checks.empty());
  EXPECT_EQ(checks[0], "checkChangeAdv md5=0 api=20120704 conf=12");
}

TEST(Initialize, FailureOfTheConfigurationIsLoggedAndTheStartGoesOn) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  scene.service->getConf = [](ravel::ClientConf& conf) {
    conf.confVersion = 99;
    throw qel::ZU_Exception("no configuration today");
  };
  TolvarAPI client;
  EXPECT_TRUE(client.initialize(scene.options()));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "initialize exception:no configuration today").size(),
            1u);
  EXPECT_TRUE(scene.output.err.empty());
  tolvar::ClientTestAccess access(client);
  EXPECT_EQ(access.clientConf().getQueryData()->conf.confVersion, 1) << "the default stays";
}

TEST(Initialize, ForeignExceptionOfTheConfigurationHasItsOwnLine) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  scene.service->getConf = [](ravel::ClientConf&) { throw 7; };
  TolvarAPI client;
  EXPECT_TRUE(client.initialize(scene.options()));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "initialize exception.").size(), 1u);
}

struct BadOptions {
  const char* what;
  void (*spoil)(TolvarAPIOptions&);
  const char* line;
};

class InitializeFailure : public testing::TestWithParam<BadOptions> {};

TEST_P(InitializeFailure, AnswersFalseAndSaysWhyOnStandardOutput) {
  Scene scene;
  TableServer server(scene.service);
  TolvarAPIOptions options = scene.options();
  GetParam().spoil(options);
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(options));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, GetParam().line).size(), 1u);
  EXPECT_TRUE(scene.output.err.empty());
  EXPECT_FALSE(client.isAlive());
  EXPECT_FALSE(client.status().lastError.empty());
}

INSTANTIATE_TEST_SUITE_P(
    , InitializeFailure,
    testing::Values(
        BadOptions{"NoCommunicator", [](TolvarAPIOptions& o) { o.comm = nullptr; },
                   "initialize exception:no communicator"},
        BadOptions{"KeyNotSet", [](TolvarAPIOptions& o) { o.shm_key_1 = 0; },
                   "initialize exception:shared-memory keys"},
        BadOptions{"EqualKeys", [](TolvarAPIOptions& o) { o.shm_key_2 = o.shm_key_1; },
                   "initialize exception:shared-memory keys"},
        BadOptions{"SizeKeyIsADataKey", [](TolvarAPIOptions& o) { o.shm_key_3 = o.shm_key_1; },
                   "initialize exception:shared-memory keys"},
        BadOptions{"PositionFileIsADirectory",
                   [](TolvarAPIOptions&) { std::filesystem::create_directory("downloadPos.dat"); },
                   "initialize exception:[ZU_Mmap::mmap]"}),
    [](const auto& parameter) { return parameter.param.what; });

TEST(Initialize, APositionFileThatCannotBeMadeNamesTheWorkingDirectory) {
  Scene scene;
  std::filesystem::create_directory("downloadPos.dat");
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(scene.options()));
  const std::string error = client.status().lastError;
  EXPECT_NE(error.find("working directory (" + std::filesystem::current_path().string() +
                       "), where the process must be able to write"),
            std::string::npos)
      << error;
}

bool startsWith(TolvarAPI& client, qel::Communicator& communicator, Scene& scene) {
  TolvarAPIOptions options = scene.options();
  options.comm = &communicator;
  return client.initialize(options);
}

TEST(Initialize, ProxyThatCannotBeMadeIsAnException) {
  struct Refusing : qel::Communicator {
    void stringToProxy(const std::string& name, ravel::TolvarPrx&) override {
      throw qel::ZU_Exception("no such object: " + name);
    }
    void stringToProxy(const std::string&, ravel::FTolvarPrx&) override {}
  } communicator;
  Scene scene;
  TolvarAPI client;
  EXPECT_FALSE(startsWith(client, communicator, scene));
  scene.output.take();
  EXPECT_EQ(
      textsStarting(scene.output.out, "initialize exception:no such object: Geo.Main.TolvarObj@tcp")
          .size(),
      1u);
}

TEST(Initialize, ProxyThatIsNotMadeIsAnException) {
  struct Silent : qel::Communicator {
    void stringToProxy(const std::string&, ravel::TolvarPrx&) override {}
    void stringToProxy(const std::string&, ravel::FTolvarPrx&) override {}
  } communicator;
  Scene scene;
  TolvarAPI client;
  EXPECT_FALSE(startsWith(client, communicator, scene));
  EXPECT_EQ(client.status().lastError,
            "initialize: the communicator made no proxy for the object \"Geo.Main.TolvarObj@tcp\"");
}

TEST(Initialize, LogWriterThatCannotStartIsReportedOnStandardOutput) {
  Scene scene;
  SystemCallsGuard guard;
  guard.calls().pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
  };
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(scene.loggingOptions()));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "initialize exception:").size(), 1u);
  EXPECT_TRUE(scene.output.err.empty());
}

}  // namespace
}  // namespace tolvar_test
