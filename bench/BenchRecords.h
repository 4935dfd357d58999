// The data the benchmarks are measured on and the records that carry them, shared by the
// Google Benchmark programs and the Windows timing program.
//
// A = text with no byte that needs escaping; B = the same text with about 2 % of the bytes
// one of '\n', '/', '"' and '\\'; C = random bytes 0x00..0xFF, like a PDF or an image. The
// data are derived from a fixed seed, so every run (and every peer) sees the same bytes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "message/CRequest.h"
#include "message/CResponse.h"

namespace PendrelBench {

enum class DataKind { A, B, C };

// "A", "B" or "C".
const char* DataKindName(DataKind kind);

// `size` bytes of file data of the given kind.
std::string MakeFileData(DataKind kind, std::size_t size);

// A request and a response with one file holding `data`, and a few parameters, as a host
// and a handler exchange them.
Pendrel::CRequest MakeRequest(std::string data);
Pendrel::CResponse MakeResponse(std::string data);

// The value at the fraction `q` (0..1) of `samples`, which it sorts.
double Percentile(std::vector<double>& samples, double q);

}  // namespace PendrelBench
