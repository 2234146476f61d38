#include <gtest/gtest.h>

#include "src/index/lookup_snapshot.h"
#include "src/index/snapshot_holder.h"
#include "tests/index/allocation_count.h"

namespace tolvar_test {
namespace {

TEST(LookupPath, AllocatesNothing) {
  ravel::vIPProperty table(1000);
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    table[i].startIP = i * 10;
    table[i].endIP = i * 10 + 8;
    table[i].place = i;
  }
  std::unordered_map<std::uint64_t, ravel::CodeInfo> maps[8];
  maps[3][5].content = "a name that no short-string buffer holds";
  tolvar::SnapshotHolder<tolvar::LookupSnapshot> holder;
  holder.publish(tolvar::LookupSnapshot::make(
      std::make_shared<const tolvar::RangeIndex>(tolvar::RangeIndex::build(table)),
      std::make_shared<const tolvar::CodeNames>(maps)));
  std::vector<std::uint32_t> ips(300);
  for (std::uint32_t i = 0; i < ips.size(); ++i) ips[i] = i * 40;
  std::vector<ravel::IPInfo> infos(ips.size());
  std::vector<std::uint8_t> found(ips.size());
  std::size_t hits = 0;
  std::size_t letters = 0;

  const std::size_t before = allocationCount();
  ASSERT_GT(before, 0u) << "the count works";
  for (const std::uint32_t ip : ips) {
    const auto guard = holder.read();
    ravel::IPInfo info;
    hits += guard->ranges->find(ip) != nullptr;
    hits += guard->ranges->lookup(ip, &info);
    letters += guard->names->row(guard->ranges->findTuple(ip)).district().size();
    letters += guard->codes->find(3, 5).size();
  }
  holder.read()->ranges->findBatch(ips, infos.data(), found.data());
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(hits, 400u);
  EXPECT_GT(letters, 300u);
}

}  // namespace
}  // namespace tolvar_test
