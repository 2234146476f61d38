#include <gmock/gmock.h>

#include <chrono>
#include <csignal>

#include "platform/exception.h"
#include "tests/support/report_count.h"
#include "tests/tolvard/serve_fixture.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using tolvar_test::fieldOf;
using tolvar_test::ServiceClient;
using tolvar_test::TolvardProcess;
using tolvar_test::ToolRun;

class Serve : public tolvar_test::ServeFixture {};

TEST_F(Serve, BothObjectsAnswer) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  EXPECT_EQ(client.check("0").isReset, 1);
  const ravel::downloadInfo page = client.firstPage();
  EXPECT_EQ(page.IPContent.size(), 40u);
  std::vector<ravel::CodeInfo> codes;
  client.main->totalDownloadCode(codes);
  EXPECT_EQ(codes.size(), 94u);
}

TEST_F(Serve, AServiceBeforeItsFirstImportSaysSo) {
  TolvardProcess server(database());
  ServiceClient client(server.address());
  EXPECT_EQ(client.check("0").isReset, 0);
  try {
    client.firstPage();
    FAIL() << "a page came";
  } catch (const qel::ZU_Exception& error) {
    EXPECT_THAT(error.what(), HasSubstr("no table yet"));
  }
  import(TOLVAR_SAMPLE);
  server.awaitLine("event=version_served");
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);
}

TEST_F(Serve, AnImportIsServedWithinASecond) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  importText(rows(7, "Funk"));
  const auto imported = std::chrono::steady_clock::now();
  const std::string line = server.awaitLine("event=version_served version=2");
  EXPECT_LT(std::chrono::steady_clock::now() - imported, std::chrono::seconds(1));
  EXPECT_EQ(fieldOf(line, "ranges"), "7");
  EXPECT_EQ(client.check(fieldOf(line, "digest")).isReset, 0);
  EXPECT_EQ(client.firstPage().IPContent.size(), 7u);
}

TEST_F(Serve, ARollbackAndAConfigurationAreServed) {
  import(TOLVAR_SAMPLE);
  importText(rows(7, "Funk"));
  TolvardProcess server(database());
  ServiceClient client(server.address());
  ASSERT_EQ(tolvard({"rollback", "1"}).exitStatus, 0);
  server.awaitLine("event=version_served version=3");
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);

  EXPECT_FALSE(client.check("0", 1).updateConf);
  ASSERT_EQ(tolvard({"conf", "set", "simplingRate=77"}).exitStatus, 0);
  server.awaitLine("event=conf_served conf_version=2");
  EXPECT_TRUE(client.check("0", 1).updateConf);
  ravel::ClientConf conf;
  client.main->getConf(conf);
  EXPECT_EQ(conf.simplingRate, 77);
}

TEST_F(Serve, SigtermEndsItAtOnceWhenNoCallIsUnderWay) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  // A connection stands, and its client does not read what the service says about closing it.
  client.check("0");
  const auto begin = std::chrono::steady_clock::now();
  server.signal(SIGTERM);
  EXPECT_EQ(server.awaitExit(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_FALSE(server.awaitLine("event=stopping signal=SIGTERM").empty());
  EXPECT_FALSE(server.awaitLine("event=stopped").empty());
}

TEST_F(Serve, ReportsAreStored) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  client.main->reportCounts({tolvar_test::hits(ravel::ECity, "Altenhafen", 4711)}, 2);
  client.main->reportLines({"192.0.2.1 somewhere"}, 0);
  server.signal(SIGTERM);  // what waits is written at the end
  EXPECT_EQ(server.awaitExit(), 0);
  EXPECT_THAT(tolvard({"usage"}).out,
              AllOf(HasSubstr("4,711  city  Altenhafen"), HasSubstr("192.0.2.1 somewhere"),
                    HasSubstr("lost on the way: 2 hits")));
}

TEST_F(Serve, BeyondTheDownloadLimitChecksAreAnsweredLater) {
  importText(rows(50001, "Netz"));
  // Connections are shared within a process; another address makes another one.
  const std::string socket = "unix:" + directory.file("second.sock");
  TolvardProcess server(database(), {"--max-downloads", "1", "--fast-listen", socket});
  ServiceClient one(server.address());
  EXPECT_EQ(one.check("0").isReset, 1);
  ServiceClient two(socket);
  const ravel::CheckInfo putOff = two.check("0");
  EXPECT_EQ(putOff.isNetFlow, 1);
  EXPECT_EQ(putOff.isReset, 0);
  EXPECT_EQ(one.firstPage().IPContent.size(), 50000u);
  EXPECT_EQ(fieldOf(server.awaitLine("event=overload"), "max_downloads"), "1");
}

TEST_F(Serve, VerboseLogsCallsAndTheirFailures) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database(), {"--verbose"});
  ServiceClient client(server.address());
  client.check("0");
  EXPECT_EQ(fieldOf(server.awaitLine("op=CheckChange"), "status"), "OK");
  EXPECT_THROW(client.firstPage(0), qel::ZU_Exception);
  const std::string failed = server.awaitLine("op=FirstDownloadPage");
  EXPECT_EQ(fieldOf(failed, "status"), "INVALID_ARGUMENT");
  EXPECT_THAT(fieldOf(failed, "cause"), HasSubstr("page size 0"));
}

TEST_F(Serve, AFurtherAddressServesToo) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database(), {"--fast-listen", "unix:" + directory.file("fast.sock")});
  ServiceClient client("unix:" + directory.file("fast.sock"));
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);
}

TEST_F(Serve, OtherAddressesNeedEncryptionOrAWord) {
  import(TOLVAR_SAMPLE);
  const ToolRun open = tolvard({"serve", "--listen", "0.0.0.0:0"});
  EXPECT_EQ(open.exitStatus, 2);
  EXPECT_THAT(open.err, AllOf(HasSubstr("--tls-cert"), HasSubstr("--insecure")));
  TolvardProcess server(database(), {"--listen", "0.0.0.0:0", "--insecure"});
  EXPECT_THAT(server.awaitLine("event=listening"), HasSubstr("0.0.0.0:"));
}

TEST_F(Serve, AnAddressInUseIsSaid) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  const ToolRun second = tolvard({"serve", "--listen", server.address()});
  EXPECT_EQ(second.exitStatus, 2);
  EXPECT_THAT(second.err, AllOf(HasSubstr(server.address()), HasSubstr("in use; end the process")));
}

TEST_F(Serve, FlagsThatDoNotGoTogetherAreSaid) {
  import(TOLVAR_SAMPLE);
  EXPECT_THAT(tolvard({"serve", "--tls-cert", "x"}).err, HasSubstr("go together"));
  EXPECT_THAT(tolvard({"serve", "--tls-ca", "x"}).err, HasSubstr("--tls-ca needs"));
  EXPECT_THAT(tolvard({"serve", "--listen", "host"}).err, HasSubstr("HOST:PORT"));
  EXPECT_EQ(tolvard({"serve", "--max-downloads", "0"}).exitStatus, 2);
}

}  // namespace
