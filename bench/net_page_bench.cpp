#include <benchmark/benchmark.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/support/geoip_table.h"
#include "bench/support/synthetic_table.h"
#include "tolvar.pb.h"
#include "transport/grpc/page_codec.h"

/// Times to turn the bytes of a page of 50,000 records into records: directly, by way of the
/// generated parser, and as a yardstick a copy of the bytes.

namespace {

constexpr std::size_t kRecords = 50000;
constexpr tolvar::wire::PageQuery kQuery{0, 0, kRecords};

std::string pageOf(ravel::vIPProperty table) {
  table.resize(std::min(table.size(), kRecords));
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    table[i].timesTamp = 1700000000;
    table[i].sequence = i + 1;
  }
  tolvar::v1::Page page;
  tolvar::wire::encodePage({~std::uint64_t{0}, 1}, table, page);
  return page.SerializeAsString();
}

std::string makePage(const std::string& name) {
  return pageOf(name == "geoip" ? tolvar_bench::readGeoipTable()
                                : tolvar_bench::makeSyntheticTable({}));
}

std::span<const std::uint8_t> bytesOf(const std::string& page) {
  return {reinterpret_cast<const std::uint8_t*>(page.data()), page.size()};
}

void direct(benchmark::State& state, const std::string& page) {
  const tolvar::wire::PageBytes bytes(bytesOf(page));
  for (auto step : state) {
    static_cast<void>(step);
    ravel::downloadInfo info;
    tolvar::wire::decodePage(bytes, kQuery, info);
    benchmark::DoNotOptimize(info.IPContent.data());
  }
}

void parser(benchmark::State& state, const std::string& page) {
  for (auto step : state) {
    static_cast<void>(step);
    tolvar::v1::Page message;
    if (!message.ParseFromString(page)) throw std::runtime_error("the page cannot be parsed");
    ravel::downloadInfo info;
    tolvar::wire::decodePage(message, kQuery, info);
    benchmark::DoNotOptimize(info.IPContent.data());
  }
}

void copy(benchmark::State& state, const std::string& page) {
  std::vector<char> to(page.size());
  for (auto step : state) {
    static_cast<void>(step);
    std::memcpy(to.data(), page.data(), page.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  for (const std::string table : {"geoip", "synthetic"}) {
    const std::string page = makePage(table);
    const auto add = [&](const char* way, void (*run)(benchmark::State&, const std::string&)) {
      benchmark::RegisterBenchmark(("page/" + table + "/" + way).c_str(),
                                   [page, run](benchmark::State& state) {
                                     run(state, page);
                                     state.counters["bytes"] = static_cast<double>(page.size());
                                   })
          ->Unit(benchmark::kMillisecond);
    };
    add("direct", direct);
    add("parser", parser);
    add("memcpy", copy);
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
