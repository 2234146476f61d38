// The whole way: a table into tolvard, over the network into a client's shared memory, to an
// answer.
#include <gtest/gtest.h>

#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"
#include "tests/tolvard/child_process.h"
#include "tests/tolvard/serve_fixture.h"
#include "tests/transport_grpc/test_ports.h"

namespace tolvar_test {
namespace {

class LookupOverNetwork : public ServeFixture {
 protected:
  static ToolRun lookup(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "lookup");
    return runTool(TOLVAR_TOOL, arguments);
  }
};

TEST_F(LookupOverNetwork, AClientAnswersFromTheTableOfTheService) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  const ToolRun run = lookup({"--service", service.address(), "8.8.8.8", "77.7.7.7"});
  EXPECT_EQ(run.exitStatus, 1) << run.err;
  EXPECT_EQ(
      run.out,
      "8.8.8.8          United States / Western Shore / Mesa Vista  operator=Granite Backbone "
      " network=data centre  extension=resolver  source=JN\n"
      "77.7.7.7         not found: no range of the table holds it\n");
}

TEST_F(LookupOverNetwork, ATableOfSeveralPagesArrivesWhole) {
  importText(rows(120000, "Netz"));
  const TolvardProcess service(database());
  // The first address of the first range, and the last one of the last.
  const ToolRun run =
      lookup({"--service", service.address(), "--timing", "0.0.0.0", "0.29.75.249"});
  EXPECT_EQ(run.exitStatus, 0) << run.out;
  EXPECT_NE(run.out.find("0.0.0.0          (no place given)  operator=Netz"), std::string::npos)
      << run.out;
  EXPECT_NE(run.err.find("120000"), std::string::npos) << run.err;
}

TEST_F(LookupOverNetwork, AHostWithAnImageAnswersWhileTheServiceIsDown) {
  import(TOLVAR_SAMPLE);
  const ShmKeys keys;
  const std::string list = std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) + "," +
                           std::to_string(keys.size());
  std::string address;
  {
    const TolvardProcess service(database());
    address = service.address();
    ASSERT_EQ(lookup({"--service", address, "--keys", list, "8.8.8.8"}).exitStatus, 0);
  }
  const ToolRun run = lookup({"--service", address, "--keys", list, "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
}

TEST_F(LookupOverNetwork, OneOfTwoEndpointsIsEnough) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database());
  const ToolRun run =
      lookup({"--service", "127.0.0.1:1", "--service", service.address(), "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
}

TEST_F(LookupOverNetwork, AStartThatTakesLongSaysWhomItWaitsForAndWhy) {
  const DeadPort refusing;
  ChildProcess client({"/bin/sh", "-c",
                       std::string("exec ") + TOLVAR_TOOL + " lookup --service " +
                           refusing.address() + " 8.8.8.8 2>&1"});
  client.awaitLine("tolvar: no answer from " + refusing.address() +
                   " yet; waiting for up to half a minute");
  client.awaitLine("tolvar: still waiting: configuration: getConf at " + refusing.address());
}

TEST_F(LookupOverNetwork, AUnixSocketMayHaveARelativePath) {
  import(TOLVAR_SAMPLE);
  const TolvardProcess service(database(),
                               {"--fast-listen", "unix:" + directory.file("here.sock")});
  for (const char* socket : {"unix:here.sock", "127.0.0.1:1,unix:here.sock"}) {
    const ToolRun run =
        runTool("/bin/sh", {"-c", "cd \"$0\" && exec \"$1\" lookup --service \"$2\" 8.8.8.8",
                            directory.path(), TOLVAR_TOOL, socket});
    EXPECT_EQ(run.exitStatus, 0) << run.err;
  }
}

TEST_F(LookupOverNetwork, TheExampleAnswersFromTheTableOfTheService) {
  import(TOLVAR_SAMPLE);
  const ShmKeys keys;
  const WorkingDirectory workplace;
  const TolvardProcess service(database());
  const ToolRun run = runTool(
      TOLVAR_EXAMPLE, {service.address(), std::to_string(keys.data0()), "8.8.8.8", "77.7.7.7"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out,
            "8.8.8.8: United States\n"
            "77.7.7.7: not found\n");
}

TEST_F(LookupOverNetwork, TableAndServiceExcludeEachOtherAndOneIsNeeded) {
  EXPECT_EQ(lookup({"--service", "127.0.0.1:1", "--table", TOLVAR_SAMPLE, "8.8.8.8"}).exitStatus,
            2);
  const ToolRun run = lookup({"8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.err.find("--service"), std::string::npos);
}

}  // namespace
}  // namespace tolvar_test
