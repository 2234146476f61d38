#include "tools/tolvar/status_line.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using tolvar::tools::answersFrom;
using tolvar::tools::showsChange;
using tolvar::tools::statusJson;
using tolvar::tools::statusLine;

constexpr timeval kNow{1700000000, 123456};

TolvarStatus following() {
  TolvarStatus status;
  status.ipReady = status.codesReady = true;
  status.digest = "a60af997181be27231efed38712fa396";
  status.ranges = 40;
  status.codeEntries = 94;
  status.lastPublished = kNow.tv_sec - 75;
  status.lastCheck = kNow.tv_sec - 15;
  return status;
}

TEST(StatusLine, ShowsWhatAClientHolds) {
  EXPECT_EQ(statusLine(following(), kNow),
            "time=2023-11-14T22:13:20.123Z ready=yes digest=a60af997181be27231efed38712fa396 "
            "ranges=40 names=94 age=75s last_check=2023-11-14T22:13:05Z failing=no "
            "last_error=none last_error_at=none");
  EXPECT_EQ(statusJson(following(), kNow),
            R"({"time":"2023-11-14T22:13:20.123Z","ready":true,)"
            R"("digest":"a60af997181be27231efed38712fa396","ranges":40,"names":94,)"
            R"("age_seconds":75,"last_check":"2023-11-14T22:13:05Z","failing":false,)"
            R"("last_error":null,"last_error_at":null})");
}

TEST(StatusLine, ShowsThatThereIsNothingYet) {
  TolvarStatus status;
  status.digest = "0";
  EXPECT_EQ(statusLine(status, kNow),
            "time=2023-11-14T22:13:20.123Z ready=no digest=none ranges=0 names=0 age=none "
            "last_check=none failing=no last_error=none last_error_at=none");
  EXPECT_EQ(statusJson(status, kNow),
            R"({"time":"2023-11-14T22:13:20.123Z","ready":false,"digest":null,"ranges":0,)"
            R"("names":0,"age_seconds":null,"last_check":null,"failing":false,)"
            R"("last_error":null,"last_error_at":null})");
}

TEST(StatusLine, AnErrorStaysOnItsLine) {
  TolvarStatus status = following();
  status.lastError = "download: \"x\"\nat \xff";
  const std::string line = statusLine(status, kNow);
  EXPECT_NE(line.find(R"(last_error="download: \"x\"\nat \xFF")"), std::string::npos) << line;
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(statusJson(status, kNow).find('\n'), std::string::npos);
}

TEST(StatusLine, AFailureThatIsOverIsToldFromOneThatGoesOn) {
  TolvarStatus status = following();
  status.failing = true;
  status.lastError = "download: gone";
  status.lastErrorAt = kNow.tv_sec - 5;
  const std::string text = R"( last_error="download: gone" last_error_at=2023-11-14T22:13:15Z)";
  EXPECT_TRUE(statusLine(status, kNow).ends_with(" failing=yes" + text));
  EXPECT_TRUE(statusJson(status, kNow)
                  .ends_with(R"("failing":true,"last_error":"download: gone",)"
                             R"("last_error_at":"2023-11-14T22:13:15Z"})"));
  status.failing = false;
  EXPECT_TRUE(statusLine(status, kNow).ends_with(" failing=no" + text));
}

TEST(StatusLine, AWallClockThatWasSetBackMakesNoNegativeAge) {
  EXPECT_NE(statusLine(following(), {1, 0}).find(" age=0s "), std::string::npos);
}

TEST(StatusLine, ATableIsReadyWhenRangesAndNamesAre) {
  TolvarStatus status = following();
  status.codesReady = false;
  EXPECT_NE(statusLine(status, kNow).find(" ready=no "), std::string::npos);
}

TEST(StatusChange, IsWhateverTheLineShows) {
  EXPECT_FALSE(showsChange(following(), following()));
  const std::vector<std::function<void(TolvarStatus&)>> changes{
      [](TolvarStatus& s) { s.ipReady = false; }, [](TolvarStatus& s) { s.codesReady = false; },
      [](TolvarStatus& s) { s.digest[0] = 'b'; }, [](TolvarStatus& s) { ++s.ranges; },
      [](TolvarStatus& s) { ++s.codeEntries; },   [](TolvarStatus& s) { ++s.lastPublished; },
      [](TolvarStatus& s) { ++s.lastCheck; },     [](TolvarStatus& s) { s.lastError = "x"; },
      [](TolvarStatus& s) { s.failing = true; }};
  for (const auto& change : changes) {
    TolvarStatus changed = following();
    change(changed);
    EXPECT_TRUE(showsChange(following(), changed));
  }
  TolvarStatus unseen = following();
  unseen.downloadMillis = 5;
  ++unseen.lastErrorAt;
  EXPECT_FALSE(showsChange(following(), unseen));
}

TEST(StatusDigest, AnswersFromTheWholeDigestOrItsBeginning) {
  EXPECT_TRUE(answersFrom(following(), "a60af997181be27231efed38712fa396"));
  EXPECT_TRUE(answersFrom(following(), "a60af997"));
  EXPECT_FALSE(answersFrom(following(), "a60af998"));
  TolvarStatus halfway = following();
  halfway.codesReady = false;
  EXPECT_FALSE(answersFrom(halfway, "a60af997"));
  TolvarStatus empty;
  empty.digest = "0";
  empty.ipReady = empty.codesReady = true;
  EXPECT_FALSE(answersFrom(empty, "0"));
}

}  // namespace
