// The files of a public JSON test corpus (valid, invalid and doubtful documents) as parser
// input: none may crash or hang the parser, and whatever parses must write back and parse
// again to the same tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "json/JsonParser.h"
#include "json/JsonWriter.h"
#include "tests/support/JsonDump.h"
#include "tests/support/Platform.h"

namespace Pendrel {
namespace {

namespace fs = std::filesystem;

// The corpus folder named at configure time.
fs::path CorpusDir() {
  return fs::u8path(pendrel_test::NativePath(PENDREL_JSON_CORPUS_DIR)) / "test_parsing";
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(JsonCorpus, EveryFileParsesAndWhatParsesWritesBackToTheSameTree) {
  const fs::path dir = CorpusDir();
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    GTEST_SKIP() << "JSON test corpus not found at " << dir.string()
                 << " (expected beside the project, in shared/corpora/json-test-suite)";
  }
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() == ".json") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  ASSERT_GT(files.size(), 300u);

  std::size_t parsed = 0;
  std::size_t rejected = 0;
  for (const fs::path& file : files) {
    SCOPED_TRACE(file.filename().string());
    const std::string text = ReadFile(file);
    std::string error;
    JsonValue root;
    ParseJson(error, root, text);
    if (!error.empty()) {
      EXPECT_TRUE(root.IsEmpty());
      ++rejected;
      continue;
    }
    ++parsed;
    std::string written;
    WriteJson(kCompactJsonStyle, root, written);
    std::string againError;
    JsonValue again;
    ParseJson(againError, again, written);
    EXPECT_EQ(againError, "");
    EXPECT_EQ(pendrel_test::DumpJson(again), pendrel_test::DumpJson(root));
  }
  // The lenient parser accepts most of the corpus, strict rejects included, and rejects the
  // rest with a message.
  EXPECT_GT(parsed, 150u);
  EXPECT_GT(rejected, 50u);
}

TEST(JsonCorpus, DeepOpeningBracketsGiveAnEmptyResult) {
  const fs::path file = CorpusDir() / "n_structure_100000_opening_arrays.json";
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) GTEST_SKIP() << "JSON test corpus not found";
  std::string error;
  JsonValue root;
  ParseJson(error, root, ReadFile(file));
  EXPECT_EQ(error, "");
  EXPECT_TRUE(root.IsEmpty());
}

}  // namespace
}  // namespace Pendrel
