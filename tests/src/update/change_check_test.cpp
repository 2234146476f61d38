#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

std::size_t checksIn(const Scene& scene) { return scene.callsStarting("checkChangeAdv").size(); }

TEST(ChangeCheck, AsksAtFirstAndThenOnceIn600Seconds) {
  StepScene scene;
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(checksIn(scene), 1u);
  scene.output.take();

  scene.clock.advance(10000);
  EXPECT_FALSE(scene.access.checkChange());
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.out, 752),
            std::vector<std::string>{"now=1700000010, last=1700000000, max=600"});
  EXPECT_EQ(textsAt(scene.output.out, 824), std::vector<std::string>{"NOT need check change..."});

  scene.clock.advance(589000);
  EXPECT_FALSE(scene.access.checkChange()) << "599 seconds are not enough";
  EXPECT_EQ(checksIn(scene), 1u);
  scene.clock.advance(1000);
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(checksIn(scene), 2u);
}

TEST(ChangeCheck, SendsDigestVersionsAndPicksTheServerByTheTime) {
  StepScene scene;
  scene.access.cltMd5() = "abc";
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(scene.service->calls(),
            (std::vector<std::string>{"selectServer 1700000000",
                                      "checkChangeAdv md5=abc api=20120704 conf=1"}));
  EXPECT_EQ(scene.access.proxyHashKey(), 1700000000);
  scene.output.take();
  const auto begin = textsAt(scene.output.out, 766);
  ASSERT_EQ(begin.size(), 1u);
  EXPECT_EQ(begin[0].rfind("begin check change, clt_md5=abc, apiVersion=20120704, confVersion=1, "
                           "proxy_hash_key=1700000000, proxy=0x",
                           0),
            0u)
      << begin[0];
  EXPECT_EQ(textsAt(scene.output.out, 773),
            std::vector<std::string>{"check change done, net_flow=0, reset=0, updateConf=0"});
}

TEST(ChangeCheck, ResetArmsTheDownloadFromTheStart) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.isReset = 2; };
  scene.access.currDownloadPos() = 17;
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(scene.access.isReset(), 2);
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  EXPECT_TRUE(scene.access.isCheckingCode());
  EXPECT_EQ(scene.access.currDownloadPos(), 0u);
  EXPECT_EQ(scene.access.tBegin().tv_sec, 1700000000);
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.out, 792),
            std::vector<std::string>{"clt need total download ip info. clt_md5=0, svr_ret=2"});
}

TEST(ChangeCheck, OverloadWithResetArmsNothingButKeepsTheMarker) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) {
    info.isNetFlow = 1;
    info.isReset = 1;
    info.updateConf = true;
  };
  EXPECT_FALSE(scene.access.checkChange());
  EXPECT_EQ(scene.access.isReset(), 1);
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_FALSE(scene.access.isCheckingCode());
  EXPECT_TRUE(scene.callsStarting("getConf").empty()) << "the announced update is not fetched";
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.out, 782),
            std::vector<std::string>{"server net over flow! please retry after a while."});
  EXPECT_FALSE(scene.access.checkChange()) << "the next check comes after the usual time";
  EXPECT_EQ(checksIn(scene), 1u);
}

TEST(ChangeCheck, UpdateInstallsTheNewConfiguration) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.updateConf = true; };
  scene.service->getConf = [](ravel::ClientConf& conf) {
    conf.confVersion = 8;
    conf.simpleLogCitys = {"Y", "X", "Y", "X"};
  };
  EXPECT_TRUE(scene.access.checkChange());
  {
    const auto conf = scene.access.clientConf().getQueryData();
    EXPECT_EQ(conf->citys, (std::set<std::string>{"X", "Y"}));
    EXPECT_EQ(conf->conf.confVersion, 8);
  }
  EXPECT_EQ(scene.service->calls().back(), "getConf") << "without choosing a server";
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.out, 814), std::vector<std::string>{"clientConf update=8"});

  scene.makeCheckDue();
  scene.access.checkChange();
  EXPECT_EQ(scene.callsStarting("checkChangeAdv").back(),
            "checkChangeAdv md5=0 api=20120704 conf=8");
}

TEST(ChangeCheck, FailedConfigurationAfterAnAnsweredCheckStillAnswersTrue) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.updateConf = true; };
  scene.service->getConf = [](ravel::ClientConf& conf) {
    conf.confVersion = 8;
    throw qel::ZU_Exception("gone");
  };
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(scene.access.clientConf().getQueryData()->conf.confVersion, 1);
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.err, 831), std::vector<std::string>{"catch qel exception: gone"});
}

class ChangeCheckDuringWork : public testing::TestWithParam<int> {};

TEST_P(ChangeCheckDuringWork, MakesNoCallClearsTheFlagsAndAnswersFalse) {
  StepScene scene;
  scene.access.isReset() = 1;
  scene.access.isCheckingCode() = GetParam() == 0;
  scene.access.isTotalDownLoading() = GetParam() == 1;
  scene.access.isIncrementDownloading() = GetParam() == 2;
  EXPECT_FALSE(scene.access.checkChange());
  EXPECT_TRUE(scene.service->calls().empty());
  EXPECT_FALSE(scene.access.isCheckingCode());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_EQ(scene.access.isIncrementDownloading(), GetParam() == 2) << "nobody clears this one";
  EXPECT_EQ(scene.access.isReset(), 0);
}

INSTANTIATE_TEST_SUITE_P(CodesDownloadIncrement, ChangeCheckDuringWork, testing::Range(0, 3));

TEST(ChangeCheck, DownloadThatTakes600SecondsIsStopped) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.isReset = 1; };
  scene.access.checkChange();
  scene.clock.advance(599000);
  scene.access.checkChange();
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  scene.clock.advance(1000);
  EXPECT_FALSE(scene.access.checkChange());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_EQ(checksIn(scene), 1u);
  scene.clock.advance(600000);
  EXPECT_TRUE(scene.access.checkChange()) << "and armed again by the check after that";
  EXPECT_TRUE(scene.access.isTotalDownLoading());
}

TEST(ChangeCheck, FailureLeavesMarkerAndFlagsAndIsNotRetriedBefore600Seconds) {
  StepScene scene;
  scene.access.isReset() = 1;
  scene.service->checkChange = [](const auto&, const auto&) {
    throw qel::ZU_Exception("time-out");
  };
  EXPECT_FALSE(scene.access.checkChange());
  EXPECT_EQ(scene.access.isReset(), 1);
  EXPECT_EQ(scene.client.status().lastError, "change check: time-out");
  scene.output.take();
  ASSERT_EQ(scene.output.err.size(), 1u);
  EXPECT_EQ(scene.output.err[0].number, 831);
  EXPECT_EQ(scene.output.err[0].text, "catch qel exception: time-out");
  EXPECT_FALSE(scene.access.checkChange());
  EXPECT_EQ(checksIn(scene), 1u);
}

TEST(ChangeCheck, OtherExceptionsHaveTheirOwnLines) {
  StepScene scene;
  scene.service->checkChange = [](const auto&, const auto&) { throw std::runtime_error("odd"); };
  EXPECT_FALSE(scene.access.checkChange());
  scene.makeCheckDue();
  scene.service->checkChange = [](const auto&, const auto&) { throw 3; };
  EXPECT_FALSE(scene.access.checkChange());
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.err, 836), std::vector<std::string>{"catch  std exception:odd"});
  EXPECT_EQ(textsAt(scene.output.err, 841), std::vector<std::string>{"UNKOWN EX:"});
}

TEST(ChangeCheck, WallClockSetBackDoesNotSilenceIt) {
  StepScene scene;
  EXPECT_TRUE(scene.access.checkChange());
  scene.clock.stepWall(-86400 * 1000LL);
  scene.clock.advance(599999);
  EXPECT_FALSE(scene.access.checkChange());
  scene.clock.advance(1);
  EXPECT_TRUE(scene.access.checkChange());
  scene.clock.advance(599999);
  EXPECT_FALSE(scene.access.checkChange()) << "and the usual distance holds again";
  EXPECT_EQ(checksIn(scene), 2u);
}

TEST(ChangeCheck, WallClockSetForwardADayCostsOneEarlyCheckAndNoMore) {
  StepScene scene;
  EXPECT_TRUE(scene.access.checkChange());
  scene.clock.stepWall(86400 * 1000LL);
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(scene.client.status().lastCheck, scene.clock.time());
  scene.clock.advance(599999);
  EXPECT_FALSE(scene.access.checkChange());
  scene.clock.stepWall(-86400 * 1000LL);
  EXPECT_FALSE(scene.access.checkChange()) << "and back";
  scene.clock.advance(1);
  EXPECT_TRUE(scene.access.checkChange());
  EXPECT_EQ(scene.client.status().lastCheck, scene.clock.time());
  EXPECT_EQ(checksIn(scene), 3u);
}

TEST(ChangeCheck, TheFirstComesAtOnceAlsoWhereTheWallClockBeginsIn1970) {
  for (const std::int64_t wall : {0, 599, -86400}) {
    StepScene scene;
    scene.clock.stepWall((wall - 1700000000) * 1000);
    EXPECT_TRUE(scene.access.checkChange()) << wall;
    EXPECT_FALSE(scene.access.checkChange()) << wall;
    scene.clock.advance(600000);
    EXPECT_TRUE(scene.access.checkChange()) << wall;
    EXPECT_EQ(checksIn(scene), 2u) << wall;
  }
}

}  // namespace
}  // namespace tolvar_test
