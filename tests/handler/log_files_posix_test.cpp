// The transaction log on Linux: its folder and files are the user's alone whatever the
// umask, and a symbolic link planted where a log file goes is not followed.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "handler/detail/LogWriter.h"
#include "tests/support/TempDir.h"

namespace CTolvane::detail {
namespace {

namespace fs = std::filesystem;

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

std::string Contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TransactionRecord FullRecord(const pendrel_test::TempDir& dir) {
  TransactionRecord record;
  record.mode = 3;
  record.sessionTag = SessionTag(L"7");
  record.momentTag = MomentTag(1200);
  record.folder = dir.WidePath(L"HarnockLogs/");
  return record;
}

TEST(HandlerLogFiles, FolderAndFilesAreTheUsersAlone) {
  const mode_t old = ::umask(0);
  pendrel_test::TempDir dir;
  WriteTransactionLog(FullRecord(dir), "request", "");
  ::umask(old);
  const fs::path folder = dir.path() / "HarnockLogs";
  EXPECT_EQ(ModeOf(folder), 0700u);
  EXPECT_EQ(ModeOf(folder / "Listing007.txt"), 0600u);
  EXPECT_EQ(ModeOf(folder / "007-00012-2.txt"), 0600u);
}

TEST(HandlerLogFiles, LinkInThePlaceOfALogFileIsNotFollowed) {
  pendrel_test::TempDir dir;
  const fs::path target = dir.Write("precious.txt", "keep me");
  fs::create_directory(dir.path() / "HarnockLogs");
  fs::create_symlink(target, dir.path() / "HarnockLogs" / "007-00012-2.txt");
  fs::create_symlink(target, dir.path() / "HarnockLogs" / "Listing007.txt");
  WriteTransactionLog(FullRecord(dir), "request", "");
  EXPECT_EQ(Contents(target), "keep me");
}

}  // namespace
}  // namespace CTolvane::detail
