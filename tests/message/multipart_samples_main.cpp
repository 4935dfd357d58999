// Writes multipart messages built by CResponse::ToHttpRequestData for an independent MIME
// parser to read back (check_multipart.py). For each message N in the folder given as the
// only argument:
//   message_N.eml       the header lines and the body joined as an HTTP layer joins them;
//   message_N.expected  one line per part: content type, name, file name and the file that
//                       holds the part's exact bytes, separated by tabs ("-" for absent);
//   message_N_part_M.bin the part's bytes.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "message/CResponse.h"

namespace {

constexpr int kMessages = 12;

std::string Narrow(const std::wstring& ascii) { return std::string(ascii.begin(), ascii.end()); }

// Names from characters that need no MIME quoting beyond the double quotes around them.
std::wstring RandomName(std::mt19937& random) {
  static const wchar_t kAlphabet[] =
      L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 -_.()";
  const std::size_t length = 1 + random() % 20;
  std::wstring name;
  for (std::size_t i = 0; i < length; ++i) name += kAlphabet[random() % (std::size(kAlphabet) - 1)];
  // A leading or trailing blank would be trimmed by any header reader.
  name.front() = L'n';
  name.back() = L'x';
  return name;
}

std::string RandomData(std::mt19937& random) {
  const std::size_t sizes[] = {0, 1, 2, 3, 48, 49, 195, 1000, 4096, 150000};
  std::string data(sizes[random() % std::size(sizes)] + random() % 7, '\0');
  for (char& c : data) c = static_cast<char>(random());
  return data;
}

void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// An HTTP layer ends each header line with CRLF and separates the body with an empty line.
std::string HttpMessage(const std::string& header, const std::string& body) {
  std::string message;
  std::size_t start = 0;
  for (std::size_t end; (end = header.find('\n', start)) != std::string::npos; start = end + 1) {
    message += header.substr(start, end - start) + "\r\n";
  }
  message += header.substr(start) + "\r\n";
  return "MIME-Version: 1.0\r\n" + message + "\r\n" + body;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT_FOLDER\n", argv[0]);
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  std::mt19937 random(20261122);
  for (int m = 0; m < kMessages; ++m) {
    Pendrel::CResponse response;
    const std::size_t files = 2 + random() % 4;
    const std::string stem = "message_" + std::to_string(m);
    std::string expected;
    for (std::size_t f = 0; f < files; ++f) {
      Pendrel::CMimeFile file;
      file.Type = static_cast<Pendrel::EMimeType>(random() % 11);
      if (random() % 4 != 0) file.Name = RandomName(random);
      if (random() % 4 != 0) file.FileName = RandomName(random);
      file.Data = RandomData(random);
      response.Data.push_back(file);
      const std::string dataFile = stem + "_part_" + std::to_string(f) + ".bin";
      WriteFile(folder / dataFile, file.Data);
      expected += Pendrel::GetMimeTypeName(file.Type) + "\t" +
                  (file.Name.empty() ? "-" : Narrow(file.Name)) + "\t" +
                  (file.FileName.empty() ? "-" : Narrow(file.FileName)) + "\t" + dataFile + "\n";
    }
    std::string header, body;
    response.ToHttpRequestData(header, body);
    WriteFile(folder / (stem + ".eml"), HttpMessage(header, body));
    WriteFile(folder / (stem + ".expected"), expected);
  }
  std::printf("wrote %d multipart messages to %s\n", kMessages, folder.string().c_str());
  return 0;
}
