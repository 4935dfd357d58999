#include <gtest/gtest.h>

#include <algorithm>  // std::min
#include <atomic>
#include <cctype>  // std::isalnum
#include <string>

#include "tests/support/TestProcess.h"

namespace pendrel_test {

std::wstring UniqueTestPipeName(const char* prefix) {
  static std::atomic<unsigned> counter{0};
  std::string name = prefix + std::to_string(OwnProcessId()) + "-" + std::to_string(++counter);
  if (const auto* test = testing::UnitTest::GetInstance()->current_test_info()) {
    name += "-";
    name += test->name();
  }
  // Parameterised tests are named "Test/3"; a name must not leave the pipe's folder.
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';
  }
  // Socket paths are short (108 bytes with their folder).
  name.resize(std::min<std::size_t>(name.size(), 60));
  return std::wstring(name.begin(), name.end());
}

}  // namespace pendrel_test
