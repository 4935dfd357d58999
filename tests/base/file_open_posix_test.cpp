// Files and folders the library writes on Linux (the transaction log's): the user's alone
// whatever the umask, and never reached through a symbolic link planted in their place.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "base/FileOpen.h"
#include "tests/support/TempDir.h"

namespace {

using Pendrel::base::FilePtr;
using Pendrel::base::OpenFile;
namespace fs = std::filesystem;

std::string Contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// Opens the umask wide while it lives.
class OpenUmask {
 public:
  OpenUmask() : m_old(::umask(0)) {}
  ~OpenUmask() { ::umask(m_old); }
  OpenUmask(const OpenUmask&) = delete;
  OpenUmask& operator=(const OpenUmask&) = delete;

 private:
  mode_t m_old;
};

class FileOpenWriting : public testing::TestWithParam<const char*> {};

TEST_P(FileOpenWriting, CreatesFileOfTheUserAlone) {
  const OpenUmask umask;
  pendrel_test::TempDir dir;
  FilePtr file = OpenFile(dir.WidePath(L"log.txt"), GetParam());
  ASSERT_TRUE(file);
  std::fputs("entry", file.get());
  file.reset();
  EXPECT_EQ(ModeOf(dir.path() / "log.txt"), 0600u);
  EXPECT_EQ(Contents(dir.path() / "log.txt"), "entry");
}

TEST_P(FileOpenWriting, RefusesALinkInThePlaceOfTheFile) {
  pendrel_test::TempDir dir;
  const fs::path target = dir.Write("target.txt", "precious");
  fs::create_symlink(target, dir.path() / "log.txt");
  EXPECT_FALSE(OpenFile(dir.WidePath(L"log.txt"), GetParam()));
  EXPECT_EQ(Contents(target), "precious");
}

INSTANTIATE_TEST_SUITE_P(Modes, FileOpenWriting, testing::Values("a", "ab", "w", "wb"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param[0] == 'a' ? "Append" : "Write") +
                                  (info.param[1] == 'b' ? "Binary" : "");
                         });

TEST(FileOpen, AppendsToAnExistingFileAndKeepsItsMode) {
  pendrel_test::TempDir dir;
  const fs::path path = dir.Write("log.txt", "first ");
  ::chmod(path.c_str(), 0640);
  FilePtr file = OpenFile(dir.WidePath(L"log.txt"), "a");
  ASSERT_TRUE(file);
  std::fputs("second", file.get());
  file.reset();
  EXPECT_EQ(Contents(path), "first second");
  EXPECT_EQ(ModeOf(path), 0640u);
}

TEST(FileOpen, WriteEmptiesAnExistingFile) {
  pendrel_test::TempDir dir;
  const fs::path path = dir.Write("log.txt", "old text");
  FilePtr file = OpenFile(dir.WidePath(L"log.txt"), "w");
  ASSERT_TRUE(file);
  std::fputs("new", file.get());
  file.reset();
  EXPECT_EQ(Contents(path), "new");
}

TEST(FileOpen, ReadingFollowsLinks) {
  pendrel_test::TempDir dir;
  const fs::path target = dir.Write("input.txt", "data");
  fs::create_symlink(target, dir.path() / "link.txt");
  FilePtr file = OpenFile(dir.WidePath(L"link.txt"), "rb");
  ASSERT_TRUE(file);
  char buffer[8] = {};
  EXPECT_EQ(std::fread(buffer, 1, sizeof(buffer), file.get()), 4u);
}

TEST(FileOpen, CreatesFolderOfTheUserAlone) {
  const OpenUmask umask;
  pendrel_test::TempDir dir;
  Pendrel::base::CreateFolder(dir.WidePath(L"HarnockLogs"));
  EXPECT_EQ(ModeOf(dir.path() / "HarnockLogs"), 0700u);
}

}  // namespace
