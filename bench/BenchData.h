// What every Google Benchmark program of bench/ shares besides the data (BenchRecords.h):
// the sizes of a full run and of a smoke run, the memcpy baseline and the program's main.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "BenchRecords.h"

namespace benchmark {
class State;
}

namespace PendrelBench {

// True when PENDREL_BENCH_SMOKE is set (to anything but "0"): the programs then register
// their benchmarks at tiny sizes only, so that a smoke run proves they build and run.
bool SmokeRun();

// "64K", "1M", "16M": the size in a benchmark's name.
std::string SizeName(std::size_t bytes);

// Sizes of the JSON figures: 64 KiB, 1 MiB and 16 MiB of file data (4 KiB in a smoke run).
std::vector<std::size_t> JsonSizes();

// The baseline of every table: memcpy of `size` bytes into a buffer of their own, in bytes
// per second.
void MemcpyBaseline(benchmark::State& state, std::size_t size);

// Initialises Google Benchmark, lets `registerAll` register the program's benchmarks and
// runs them; the exit code for main.
int RunBenchmarks(int argc, char** argv, const std::function<void()>& registerAll);

}  // namespace PendrelBench
