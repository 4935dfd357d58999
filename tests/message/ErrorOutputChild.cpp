#include "tests/message/ErrorOutputChild.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cwchar>  // fwide, fwprintf
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string_view>

#include "message/CResponse.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestProcess.h"

namespace pendrel_test {

std::string ErrorOutputOfChild(const std::string& scene) {
  TempDir dir;
  const std::filesystem::path output = dir.path() / "stdout.txt";
  const std::string argument = kErrorOutputChildArgument;
  TestProcess child({OwnExecutable().wstring(), std::wstring(argument.begin(), argument.end()),
                     std::wstring(scene.begin(), scene.end()), output.wstring()});
  EXPECT_TRUE(child.Started());
  EXPECT_EQ(child.Wait(std::chrono::seconds(60)), 0) << scene;
  std::ifstream in(output, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int RunErrorOutputChild(int argc, char** argv) {
  if (argc != 2) return 64;
  const std::string_view scene = argv[0];
  // Reopening also gives the stream no orientation, as at the start of a program.
  if (std::freopen(argv[1], "w", stdout) == nullptr) return 65;
  if (scene == "narrow") {
    Pendrel::Error(L"disk full");
    Pendrel::Error(static_cast<Pendrel::EStatus>(7), L"");
    std::printf("printf %d\n", 1);
    std::cout << "cout" << std::endl;
  } else if (scene == "utf8") {
    Pendrel::Error(L"caf\u00e9 \u20ac \U0001F600");
    std::printf("after\n");
  } else if (scene == "byte") {
    std::printf("before\n");
    Pendrel::Error(L"middle");
    std::printf("after\n");
  } else if (scene == "wide") {
    std::fwide(stdout, 1);
    Pendrel::Error(L"middle");
    std::fwprintf(stdout, L"after %d\n", 2);
  } else if (scene == "orientation") {
    Pendrel::Error(L"first");
    const int orientation = std::fwide(stdout, 0);
    std::printf("orientation %d\n", orientation);
  } else {
    return 64;
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace pendrel_test
