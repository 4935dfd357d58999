// The memory figure: how much memory reading a response with one large file takes beyond
// what the caller already holds, against RapidJSON and Boost.JSON reading the same document
// into their own trees.
//
// Names: Memory/<size>/<reader>. Counters: extra_mib, the peak resident memory above what
// the process held just before the call, and extra_x_payload, the same in multiples of the
// file's size. Readers:
//   pendrel.moved   CResponse::FromJsonString(std::move(text)), as the handler client calls it
//   pendrel.copied  CResponse::FromJsonString(text): the copy of the argument counts too
//   rapidjson       Document::Parse (the tree holds a copy of the file)
//   boost.json      boost::json::parse
// The document is B (text with 2 % escapes), which every reader accepts.
//
// The peak is the kernel's high-water mark of resident memory (VmHWM), reset just before
// each call. Large blocks come straight from mmap (a fixed, low threshold below), so that
// freed memory goes back to the system and cannot hide an allocation.
#define RAPIDJSON_HAS_STDSTRING 1

#include <benchmark/benchmark.h>
#include <malloc.h>  // mallopt
#include <rapidjson/document.h>

#include <boost/json.hpp>
#include <fstream>
#include <string>

#include "BenchData.h"

namespace PendrelBench {
namespace {

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long StatusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return std::stol(line.substr(field.size() + 1));
    }
  }
  return -1;
}

// Resets the high-water mark to the current resident size.
bool ResetPeak() {
  std::ofstream clearRefs("/proc/self/clear_refs");
  clearRefs << "5";
  return static_cast<bool>(clearRefs.flush());
}

template <typename Read>
void MeasurePeak(benchmark::State& state, std::size_t payload, Read read) {
  for (auto _ : state) {
    if (!ResetPeak()) {
      state.SkipWithError("cannot reset the peak (/proc/self/clear_refs)");
      return;
    }
    const long before = StatusKiB("VmRSS");
    read();
    const long peak = StatusKiB("VmHWM");
    const double extra = static_cast<double>(peak - before) * 1024.0;
    state.counters["extra_mib"] = extra / (1024.0 * 1024.0);
    state.counters["extra_x_payload"] = extra / static_cast<double>(payload);
  }
}

struct Document {
  std::size_t payload = 0;
  std::string text;
};

// The copy that is moved in exists before the peak is reset, as a received message does.
void PendrelMovedReader(benchmark::State& state, const Document* document) {
  for (auto _ : state) {
    std::string text = document->text;
    Pendrel::CResponse response;
    ResetPeak();
    const long before = StatusKiB("VmRSS");
    response.FromJsonString(std::move(text));
    const long peak = StatusKiB("VmHWM");
    if (response.Data.size() != 1 || response.Data.front().Data.size() != document->payload) {
      state.SkipWithError("the file did not come back");
      return;
    }
    const double extra = static_cast<double>(peak - before) * 1024.0;
    state.counters["extra_mib"] = extra / (1024.0 * 1024.0);
    state.counters["extra_x_payload"] = extra / static_cast<double>(document->payload);
  }
}

void PendrelCopied(benchmark::State& state, const Document* document) {
  MeasurePeak(state, document->payload, [&] {
    Pendrel::CResponse response;
    response.FromJsonString(document->text);
    benchmark::DoNotOptimize(response.Data.data());
  });
}

void RapidJson(benchmark::State& state, const Document* document) {
  MeasurePeak(state, document->payload, [&] {
    rapidjson::Document value;
    value.Parse(document->text.data(), document->text.size());
    benchmark::DoNotOptimize(value["Data"][0]["Data"].GetString());
  });
}

void BoostJson(benchmark::State& state, const Document* document) {
  MeasurePeak(state, document->payload, [&] {
    const boost::json::value value = boost::json::parse(document->text);
    benchmark::DoNotOptimize(
        value.at("Data").as_array().at(0).as_object().at("Data").as_string().data());
  });
}

void RegisterAll() {
  // Every block of 64 KiB and more is mapped on its own and unmapped when freed.
  mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);

  static Document document;
  document.payload = SmokeRun() ? std::size_t{1} << 20 : std::size_t{64} << 20;
  document.text = MakeResponse(MakeFileData(DataKind::B, document.payload)).ToJsonString();
  const std::string prefix = "Memory/" + SizeName(document.payload) + "/";
  for (auto [name, function] :
       {std::pair{"pendrel.moved", PendrelMovedReader}, std::pair{"pendrel.copied", PendrelCopied},
        std::pair{"rapidjson", RapidJson}, std::pair{"boost.json", BoostJson}}) {
    benchmark::RegisterBenchmark((prefix + name).c_str(), function, &document)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
  }
}

}  // namespace
}  // namespace PendrelBench

int main(int argc, char** argv) {
  return PendrelBench::RunBenchmarks(argc, argv, PendrelBench::RegisterAll);
}
