// The transaction log: when the handler runs with a mode of 1 to 3, exchanges that fail on
// the pipe are written to files in "HarnockLogs" beside the host program, named by the
// session and the moment (e.g. Listing017.txt and 017-00342-2.txt). The files are opened in
// binary mode, so they hold the same bytes on every platform.
#include <cstdio>
#include <mutex>
#include <sstream>

#include "base/FileOpen.h"
#include "handler/CHandler.h"
#include "handler/detail/HandlerState.h"
#include "handler/detail/HostSystem.h"
#include "handler/detail/TestSeams.h"
#include "json/TextConversion.h"

namespace CTolvane {
namespace {

using Pendrel::base::FilePtr;

std::mutex g_folderOverrideMutex;
std::wstring g_folderOverride;  // guarded by g_folderOverrideMutex

std::wstring LogFolder() {
  {
    const std::lock_guard<std::mutex> lock(g_folderOverrideMutex);
    if (!g_folderOverride.empty()) return g_folderOverride;
  }
  static const std::wstring folder =
      detail::HostProgramFolder() + L"HarnockLogs" + Pendrel::base::PreferredPathSeparator();
  return folder;
}

// Opens (or creates) `fileName` in the log folder for appending and writes the local date
// and time, without a line end: the caller's text follows on the same line.
FilePtr OpenLogFile(const std::wstring& fileName) {
  const std::wstring folder = LogFolder();
  Pendrel::base::CreateFolder(folder.substr(0, folder.size() - 1));
  const std::wstring path = folder + fileName;
  FilePtr file = Pendrel::base::OpenFile(path, "ab");
  if (!file) file = Pendrel::base::OpenFile(path, "wb");
  if (!file) return nullptr;
  const detail::LocalTime now = detail::CurrentLocalTime();
  std::fprintf(file.get(), "%02d.%02d.%04d %02d:%02d:%02d", now.day, now.month, now.year, now.hour,
               now.minute, now.second);
  return file;
}

void WriteBytes(std::FILE* file, const std::string& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), file);
}

}  // namespace

namespace detail {
std::wstring LogFolderOverride() {
  const std::lock_guard<std::mutex> lock(g_folderOverrideMutex);
  return g_folderOverride;
}
void SetLogFolderOverride(const std::wstring& folder) {
  const std::lock_guard<std::mutex> lock(g_folderOverrideMutex);
  g_folderOverride = folder;
}
}  // namespace detail

std::wstring CHandler::GetKesh2SessionID() {
  std::wstring text;
  {
    const std::lock_guard<std::mutex> lock(m_state->textMutex);
    text = m_state->SessionIdText;
  }
  std::wistringstream stream(text);
  unsigned int id = 0;
  stream >> id;
  return Pendrel::FormatWString(L"%03u", id);
}

std::wstring CHandler::GetKesh2SessionStartTime() {
  const std::uint64_t tenths = (detail::NowTicks() - m_state->StartTicks) / 100;
  return Pendrel::FormatWString(L"%05u", static_cast<unsigned>(tenths));
}

void CHandler::LogTransaction(const std::string& request, const std::string& response) {
  const int mode = m_state->ModeValue;
  if (mode < 1 || mode > 3) return;
  const std::wstring session = GetKesh2SessionID();
  const std::wstring tag = session + L"-" + GetKesh2SessionStartTime() + L"-2";
  if (mode == 2 || mode == 3) {
    if (FilePtr file = OpenLogFile(L"Listing" + session + L".txt")) {
      std::fprintf(file.get(), " Transaction %s; RequestSize=%lu; ResponseSize=%lu\n",
                   Pendrel::Utf16ToUtf8(tag).c_str(), static_cast<unsigned long>(request.size()),
                   static_cast<unsigned long>(response.size()));
    }
  }
  if (mode == 1 || mode == 3) {
    if (FilePtr file = OpenLogFile(tag + L".txt")) {
      // The texts are written whole, zero bytes included.
      std::fputs("\nRequest:\n", file.get());
      WriteBytes(file.get(), request);
      std::fputs("\nResponse:\n", file.get());
      WriteBytes(file.get(), response);
      std::fputs("\n", file.get());
    }
  }
}

}  // namespace CTolvane
