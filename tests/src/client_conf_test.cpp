// The double buffer of the client's configuration.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "include/ConfigDataWrapper.h"

namespace {

using Wrapper = ConfigDataWrapper<ClientConfWrapper>;

void expectDefaults(const ClientConfWrapper& slot) {
  EXPECT_FALSE(slot.conf.statisOpen);
  EXPECT_TRUE(slot.conf.simpleLogCitys.empty());
  EXPECT_EQ(slot.conf.simplingRate, 0);
  EXPECT_EQ(slot.conf.logBufferLimit, 1000);
  EXPECT_FALSE(slot.conf.logUnknownIp);
  EXPECT_EQ(slot.conf.confVersion, 1);
  EXPECT_TRUE(slot.citys.empty());
}

/// The writer's whole sequence.
void write(Wrapper& wrapper, int version, const std::vector<std::string>& cities = {}) {
  ClientConfWrapper& slot = wrapper.getUpdateData();
  slot.conf.confVersion = version;
  slot.conf.simpleLogCitys = cities;
  slot.citys.clear();
  slot.citys.insert(slot.conf.simpleLogCitys.begin(), slot.conf.simpleLogCitys.end());
  wrapper.swap();
}

TEST(ConfigDataWrapper, BothSlotsHoldTheDefaultsAtFirst) {
  Wrapper wrapper;
  expectDefaults(*wrapper.getQueryData());
  expectDefaults(wrapper.getUpdateData());
  EXPECT_NE(&*wrapper.getQueryData(), &wrapper.getUpdateData());
}

TEST(ConfigDataWrapper, SlotsTakeTurns) {
  Wrapper wrapper;
  const ClientConfWrapper* first = &*wrapper.getQueryData();
  const ClientConfWrapper* second = &wrapper.getUpdateData();
  write(wrapper, 2);
  EXPECT_EQ(&*wrapper.getQueryData(), second);
  EXPECT_EQ(&wrapper.getUpdateData(), first);
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 2);
  write(wrapper, 3);
  EXPECT_EQ(&*wrapper.getQueryData(), first);
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 3);
  EXPECT_EQ(wrapper.getUpdateData().conf.confVersion, 2);
}

TEST(ConfigDataWrapper, FillingChangesNothingForReadersBeforeTheSwap) {
  Wrapper wrapper;
  wrapper.getUpdateData().conf.confVersion = 9;
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 1);
  wrapper.swap();
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 9);
}

TEST(ConfigDataWrapper, RepeatedCitiesAreHeldOnce) {
  Wrapper wrapper;
  write(wrapper, 2, {"Lyon", "Oslo", "Lyon", "Lyon"});
  const auto slot = wrapper.getQueryData();
  EXPECT_EQ(slot->citys, (std::set<std::string>{"Lyon", "Oslo"}));
  EXPECT_EQ(slot->conf.simpleLogCitys.size(), 4u);
}

TEST(ConfigDataWrapper, CitiesOfTheSlotsOlderContentAreForgotten) {
  Wrapper wrapper;
  write(wrapper, 2, {"Lyon"});
  write(wrapper, 3, {"Oslo"});
  write(wrapper, 4, {"Rome"});
  EXPECT_EQ(wrapper.getQueryData()->citys, (std::set<std::string>{"Rome"}));
}

TEST(ConfigDataWrapper, ReaderAcrossASwapKeepsItsSlot) {
  Wrapper wrapper;
  wrapper.getUpdateData().conf.confVersion = 2;
  const auto reader = wrapper.getQueryData();
  wrapper.swap();
  EXPECT_EQ(reader->conf.confVersion, 1);
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 2);
}

TEST(ConfigDataWrapper, WriterWaitsForTheLastReaderOfTheSlotItFills) {
  Wrapper wrapper;
  std::atomic<bool> writing{false};
  std::atomic<bool> left{false};
  std::thread writer;
  wrapper.getUpdateData().conf.confVersion = 2;
  {
    const auto reader = wrapper.getQueryData();
    wrapper.swap();
    writer = std::thread([&] {
      writing = true;
      wrapper.getUpdateData().conf.confVersion = 3;
      EXPECT_TRUE(left) << "the slot was handed out while it was read";
      wrapper.swap();
    });
    while (!writing) std::this_thread::yield();
    for (int i = 0; i < 200; ++i) {
      std::this_thread::yield();
      ASSERT_EQ(reader->conf.confVersion, 1);
    }
    left = true;
  }
  writer.join();
  EXPECT_EQ(wrapper.getQueryData()->conf.confVersion, 3);
}

/// A slot whose fields must all agree.
struct SelfChecking {
  std::array<std::uint64_t, 32> words{};
  std::string text = "0";

  void fill(std::uint64_t version) {
    words.fill(version);
    text = std::to_string(version) + std::string(version % 40, '.');
  }
  bool whole() const {
    const std::uint64_t version = words[0];
    return std::all_of(words.begin(), words.end(), [&](auto word) { return word == version; }) &&
           (version == 0 || text == std::to_string(version) + std::string(version % 40, '.'));
  }
};

TEST(ConfigDataWrapper, ReadersNeverSeeAHalfWrittenSlot) {
  constexpr std::uint64_t kVersions = 200;
  ConfigDataWrapper<SelfChecking> wrapper;
  std::atomic<bool> done{false};
  std::atomic<int> started{0};
  std::atomic<std::uint64_t> torn{0};
  std::atomic<std::uint64_t> backwards{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      ++started;
      std::uint64_t last = 0;
      while (!done) {
        {
          const auto slot = wrapper.getQueryData();
          if (!slot->whole()) ++torn;
          if (slot->words[0] < last) ++backwards;
          last = slot->words[0];
        }
        // On a busy machine a reader is then rarely stopped while it holds a slot.
        std::this_thread::yield();
      }
    });
  }
  while (started < 2) std::this_thread::yield();
  for (std::uint64_t version = 1; version <= kVersions; ++version) {
    wrapper.getUpdateData().fill(version);
    wrapper.swap();
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(backwards, 0u);
  EXPECT_EQ(wrapper.getQueryData()->words[0], kVersions);
}

}  // namespace
