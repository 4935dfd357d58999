#include "BenchData.h"

#include <benchmark/benchmark.h>

#include <cstdlib>  // std::getenv
#include <cstring>  // std::memcpy
#include <memory>

namespace PendrelBench {

bool SmokeRun() {
  const char* value = std::getenv("PENDREL_BENCH_SMOKE");
  return value != nullptr && std::string(value) != "0";
}

std::string SizeName(std::size_t bytes) {
  if (bytes >= (std::size_t{1} << 20) && bytes % (std::size_t{1} << 20) == 0) {
    return std::to_string(bytes >> 20) + "M";
  }
  if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + "K";
  return std::to_string(bytes);
}

std::vector<std::size_t> JsonSizes() {
  if (SmokeRun()) return {std::size_t{4} << 10};
  return {std::size_t{64} << 10, std::size_t{1} << 20, std::size_t{16} << 20};
}

void MemcpyBaseline(benchmark::State& state, std::size_t size) {
  const std::string source = MakeFileData(DataKind::C, size);
  std::unique_ptr<char[]> target(new char[size]);
  for (auto _ : state) {
    std::memcpy(target.get(), source.data(), size);
    benchmark::DoNotOptimize(target.get());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

int RunBenchmarks(int argc, char** argv, const std::function<void()>& registerAll) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace PendrelBench
