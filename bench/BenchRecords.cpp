#include "BenchRecords.h"

#include <algorithm>  // std::sort
#include <cmath>      // std::ceil
#include <cstdint>
#include <utility>  // std::move

namespace PendrelBench {
namespace {

// A small, fast generator with a fixed seed (xorshift64*): the data must be the same in
// every run, and generating 64 MiB should not dominate a smoke run.
class Generator {
 public:
  std::uint64_t Next() {
    m_state ^= m_state >> 12;
    m_state ^= m_state << 25;
    m_state ^= m_state >> 27;
    return m_state * 0x2545F4914F6CDD1DULL;
  }

 private:
  std::uint64_t m_state = 0x9E3779B97F4A7C15ULL;
};

// Printable bytes that no JSON writer escapes: letters, digits, blanks and punctuation
// without '"', '\\' and '/'.
constexpr char kPlainText[] =
    "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJKLMNOPQRSTUVWXYZ 0123456789 .,;:-+*=()[]{}<>!?#%&";
constexpr char kEscaped[] = {'\n', '/', '"', '\\'};

}  // namespace

const char* DataKindName(DataKind kind) {
  switch (kind) {
    case DataKind::A:
      return "A";
    case DataKind::B:
      return "B";
    case DataKind::C:
      return "C";
  }
  return "?";
}

std::string MakeFileData(DataKind kind, std::size_t size) {
  std::string data(size, '\0');
  Generator generator;
  constexpr std::size_t kPlainCount = sizeof kPlainText - 1;
  for (std::size_t i = 0; i < size; ++i) {
    const std::uint64_t bits = generator.Next();
    switch (kind) {
      case DataKind::A:
        data[i] = kPlainText[(bits >> 32) % kPlainCount];
        break;
      case DataKind::B:
        // 2 % of the bytes (bits 0..7 below 5 of 256, close enough: 1.95 %).
        data[i] =
            (bits & 0xFF) < 5 ? kEscaped[(bits >> 8) & 3] : kPlainText[(bits >> 32) % kPlainCount];
        break;
      case DataKind::C:
        data[i] = static_cast<char>(bits >> 56);
        break;
    }
  }
  return data;
}

Pendrel::CRequest MakeRequest(std::string data) {
  Pendrel::CRequest request;
  request.Command = L"ECHO";
  request.CommandAtribute = L"document";
  request.CommandParams[L"ID"] = L"42";
  request.RequestParams[L"MODE"] = L"full";
  Pendrel::CMimeFile file;
  file.Type = Pendrel::Text;
  file.FileName = L"data.txt";
  file.Name = L"data";
  file.Data = std::move(data);
  request.InputData.push_back(std::move(file));
  return request;
}

Pendrel::CResponse MakeResponse(std::string data) {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(1));
  Pendrel::CMimeFile file;
  file.Type = Pendrel::Text;
  file.FileName = L"data.txt";
  file.Name = L"data";
  file.IsAttachment = false;
  file.Data = std::move(data);
  response.Data.push_back(std::move(file));
  response.Parameters[L"LINES"] = L"1";
  return response;
}

double Percentile(std::vector<double>& samples, double q) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(samples.size())));
  return samples[rank == 0 ? 0 : std::min(rank, samples.size()) - 1];
}

}  // namespace PendrelBench
