// The HTTP figure: CResponse::ToHttpRequestData on a response with two random files (a
// multipart body with base64 parts in 65-column CRLF lines), against OpenSSL encoding the
// same files, and memcpy of as many bytes.
//
// Names: HttpForm/<size per file>/<library>, Memcpy/2x<size per file>. Bytes processed are
// input bytes (both files). Every output buffer is kept from one iteration to the next: pendrel
// reuses the body string's capacity, the peers write into buffers made before the clock starts.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchData.h"

namespace PendrelBench {
namespace {

constexpr std::size_t kFiles = 2;

Pendrel::CResponse MakeTwoFileResponse(std::size_t size) {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
  for (std::size_t i = 0; i < kFiles; ++i) {
    Pendrel::CMimeFile file;
    file.Type = Pendrel::Pdf;
    file.FileName = i == 0 ? L"first.pdf" : L"second.pdf";
    file.Name = i == 0 ? L"first" : L"second";
    std::string data = MakeFileData(DataKind::C, size);
    data[0] = static_cast<char>(i);  // two different files
    file.Data = std::move(data);
    response.Data.push_back(std::move(file));
  }
  return response;
}

void PendrelForm(benchmark::State& state, std::size_t size) {
  const Pendrel::CResponse response = MakeTwoFileResponse(size);
  std::string header;
  std::string body;
  for (auto _ : state) {
    response.ToHttpRequestData(header, body);
    benchmark::DoNotOptimize(body.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFiles * size));
}

// EVP_EncodeBlock writes one unbroken line; a second pass cuts it into the 65-column CRLF
// lines of the body, as a host would have to.
void OpenSslBlockAndSplit(benchmark::State& state, std::size_t size) {
  const Pendrel::CResponse response = MakeTwoFileResponse(size);
  const std::size_t chars = (size + 2) / 3 * 4;
  std::unique_ptr<unsigned char[]> line(new unsigned char[chars + 1]);
  std::unique_ptr<char[]> body(new char[kFiles * (chars + chars / 65 * 2 + 2)]);
  for (auto _ : state) {
    char* out = body.get();
    for (const Pendrel::CMimeFile& file : response.Data) {
      const int length =
          EVP_EncodeBlock(line.get(), reinterpret_cast<const unsigned char*>(file.Data.data()),
                          static_cast<int>(file.Data.size()));
      for (int at = 0; at < length; at += 65) {
        if (at > 0) {
          *out++ = '\r';
          *out++ = '\n';
        }
        const int count = length - at < 65 ? length - at : 65;
        std::memcpy(out, line.get() + at, static_cast<std::size_t>(count));
        out += count;
      }
    }
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFiles * size));
}

// OpenSSL's streaming encoder, which breaks its own lines (64 columns, "\n"): not the
// body's layout, but the least work OpenSSL does for line-broken base64.
void OpenSslEncodeUpdate(benchmark::State& state, std::size_t size) {
  const Pendrel::CResponse response = MakeTwoFileResponse(size);
  const std::size_t chars = (size + 2) / 3 * 4;
  std::unique_ptr<unsigned char[]> body(new unsigned char[kFiles * (chars + chars / 64 + 80)]);
  EVP_ENCODE_CTX* context = EVP_ENCODE_CTX_new();
  for (auto _ : state) {
    unsigned char* out = body.get();
    for (const Pendrel::CMimeFile& file : response.Data) {
      EVP_EncodeInit(context);
      int length = 0;
      EVP_EncodeUpdate(context, out, &length,
                       reinterpret_cast<const unsigned char*>(file.Data.data()),
                       static_cast<int>(file.Data.size()));
      out += length;
      EVP_EncodeFinal(context, out, &length);
      out += length;
    }
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  EVP_ENCODE_CTX_free(context);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFiles * size));
}

void RegisterAll() {
  const std::size_t size = SmokeRun() ? std::size_t{4} << 10 : std::size_t{8} << 20;
  const std::string name = SizeName(size);
  benchmark::RegisterBenchmark(("Memcpy/2x" + name).c_str(), MemcpyBaseline, kFiles * size)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark(("HttpForm/" + name + "/pendrel").c_str(), PendrelForm, size)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark(("HttpForm/" + name + "/openssl.EncodeBlock+split").c_str(),
                               OpenSslBlockAndSplit, size)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark(("HttpForm/" + name + "/openssl.EncodeUpdate").c_str(),
                               OpenSslEncodeUpdate, size)
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace
}  // namespace PendrelBench

int main(int argc, char** argv) {
  return PendrelBench::RunBenchmarks(argc, argv, PendrelBench::RegisterAll);
}
