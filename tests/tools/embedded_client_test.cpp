// When a client with its own service answers from the table that was given.

#include "tools/tolvar/embedded_client.h"

#include <gtest/gtest.h>

namespace {

using tolvar::tools::hasTakenOver;

const std::string kOld = "00000000000000000000000000000001";
const std::string kNew = "00000000000000000000000000000002";

/// A client that was started from an image with this table.
TolvarStatus fromImage(const std::string& digest) {
  TolvarStatus status;
  status.ipReady = status.codesReady = status.fromImage = true;
  status.imageDigest = status.digest = digest;
  return status;
}

TEST(TakenOver, ATableThatTheImageHadNeedsNoDownload) {
  EXPECT_TRUE(hasTakenOver(fromImage(kNew), kNew));
}

TEST(TakenOver, RangesThenNames) {
  TolvarStatus status = fromImage(kOld);
  EXPECT_FALSE(hasTakenOver(status, kNew));
  status.digest = kNew;
  EXPECT_FALSE(hasTakenOver(status, kNew)) << "only the ranges answer, from one segment";
  status.publications = 1;
  EXPECT_FALSE(hasTakenOver(status, kNew)) << "the names are still the image's";
  status.codePublications = 1;
  EXPECT_TRUE(hasTakenOver(status, kNew));
}

TEST(TakenOver, NamesThenRanges) {
  // The names come behind the first page, the ranges behind the last.
  TolvarStatus status = fromImage(kOld);
  status.codePublications = 1;
  EXPECT_FALSE(hasTakenOver(status, kNew));
  status.digest = kNew;
  EXPECT_FALSE(hasTakenOver(status, kNew)) << "the second segment is still being written";
  status.publications = 1;
  EXPECT_TRUE(hasTakenOver(status, kNew));
}

TEST(TakenOver, WithoutAnImageBothHaveToCome) {
  TolvarStatus status;
  status.digest = "0";
  EXPECT_FALSE(hasTakenOver(status, kNew));
  status.digest = kNew;
  status.publications = 1;
  EXPECT_FALSE(hasTakenOver(status, kNew));
  status.codePublications = 1;
  EXPECT_TRUE(hasTakenOver(status, kNew));
}

}  // namespace
