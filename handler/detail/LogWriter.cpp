#include "handler/detail/LogWriter.h"

#include <cstdio>
#include <sstream>

#include "base/FileOpen.h"
#include "handler/detail/HostSystem.h"
#include "json/TextConversion.h"

namespace CTolvane::detail {
namespace {

using Pendrel::base::FilePtr;

std::wstring DefaultFolder() {
  static const std::wstring folder =
      HostProgramFolder() + L"HarnockLogs" + Pendrel::base::PreferredPathSeparator();
  return folder;
}

// Opens (or creates) `fileName` in `folder` for appending, in text mode, and writes the local
// date and time, without a line end: the caller's text follows on the same line.
FilePtr OpenLogFile(const std::wstring& folder, const std::wstring& fileName) {
  Pendrel::base::CreateFolder(folder.substr(0, folder.size() - 1));
  const std::wstring path = folder + fileName;
  FilePtr file = Pendrel::base::OpenFile(path, "a");
  if (!file) file = Pendrel::base::OpenFile(path, "w");
  if (!file) return nullptr;
  const LocalTime now = CurrentLocalTime();
  std::fprintf(file.get(), "%02d.%02d.%04d %02d:%02d:%02d", now.day, now.month, now.year, now.hour,
               now.minute, now.second);
  return file;
}

void WriteBytes(std::FILE* file, const std::string& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), file);
}

}  // namespace

std::wstring SessionTag(const std::wstring& sessionText) {
  std::wistringstream stream(sessionText);
  unsigned int id = 0;
  stream >> id;
  return Pendrel::FormatWString(L"%03u", id);
}

std::wstring MomentTag(std::uint64_t elapsedMs) {
  return Pendrel::FormatWString(L"%05u", static_cast<unsigned>(elapsedMs / 100));
}

void WriteTransactionLog(const TransactionRecord& record, const std::string& request,
                         const std::string& response) {
  if (record.mode < 1 || record.mode > 3) return;
  const std::wstring folder = record.folder.empty() ? DefaultFolder() : record.folder;
  const std::wstring tag = record.sessionTag + L"-" + record.momentTag + L"-2";
  if (record.mode == 2 || record.mode == 3) {
    if (FilePtr file = OpenLogFile(folder, L"Listing" + record.sessionTag + L".txt")) {
      std::fprintf(file.get(), " Transaction %s; RequestSize=%lu; ResponseSize=%lu\n",
                   Pendrel::Utf16ToUtf8(tag).c_str(), static_cast<unsigned long>(request.size()),
                   static_cast<unsigned long>(response.size()));
    }
  }
  if (record.mode == 1 || record.mode == 3) {
    if (FilePtr file = OpenLogFile(folder, tag + L".txt")) {
      std::fputs("\nRequest:\n", file.get());
      WriteBytes(file.get(), request);
      std::fputs("\nResponse:\n", file.get());
      WriteBytes(file.get(), response);
      std::fputs("\n", file.get());
    }
  }
}

}  // namespace CTolvane::detail
