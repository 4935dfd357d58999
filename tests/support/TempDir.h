// A fresh folder under the system's temporary folder, removed with everything in it when the
// test ends.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace pendrel_test {

class TempDir {
 public:
  TempDir() {
    static std::atomic<unsigned> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    m_path = std::filesystem::temp_directory_path() /
             ("pendrel-test-" + std::to_string(stamp) + "-" + std::to_string(++counter));
    std::filesystem::create_directories(m_path);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return m_path; }

  // The wide path of `name` inside this folder, joined with the platform's separator. The
  // folder's own path is ASCII, so no locale conversion is involved.
  std::wstring WidePath(const std::wstring& name) const {
    return m_path.wstring() + static_cast<wchar_t>(std::filesystem::path::preferred_separator) +
           name;
  }

  // Writes `content` to `relative` (folders created as needed) and returns the full path.
  std::filesystem::path Write(const std::filesystem::path& relative, std::string_view content) {
    const std::filesystem::path full = m_path / relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return full;
  }

 private:
  std::filesystem::path m_path;
};

}  // namespace pendrel_test
