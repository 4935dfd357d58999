#include "tools/cli/Files.h"

#include <cstdio>  // stdin
#include <filesystem>
#include <fstream>
#include <iterator>  // std::istreambuf_iterator
#include <system_error>

namespace PendrelCli {
namespace {

// Paths are UTF-8 on every platform; u8path gives Windows its wide form.
std::filesystem::path PathOf(const std::string& utf8) { return std::filesystem::u8path(utf8); }

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& data) {
  if (path == "-") {
    data.clear();
    char buffer[65536];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) data.append(buffer, got);
    return !std::ferror(stdin);
  }
  std::error_code error;
  if (std::filesystem::is_directory(PathOf(path), error)) return false;
  std::ifstream in(PathOf(path), std::ios::binary);
  if (!in) return false;
  data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

std::string ReadErrorText(const std::string& path) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(PathOf(path), error);
  if (status.type() == std::filesystem::file_type::not_found) return "there is no such file";
  if (status.type() == std::filesystem::file_type::directory) return "it is a folder";
  return "it cannot be read";
}

bool IsFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(PathOf(path), error);
}

bool WriteWholeFile(const std::string& folder, const std::string& name, std::string_view data) {
  std::ofstream out(PathOf(folder) / PathOf(name), std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  out.close();
  return static_cast<bool>(out);
}

bool MakeFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(PathOf(folder), error);
  return std::filesystem::is_directory(PathOf(folder), error);
}

std::string LastPathPart(const std::string& path) { return PathOf(path).filename().u8string(); }

}  // namespace PendrelCli
