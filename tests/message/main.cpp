// The message tests' own main: "--error-output-child ..." runs this program as a child whose
// standard output a test reads (see RunErrorOutputChild); anything else runs the tests.
#include <gtest/gtest.h>

#include <string_view>

#include "tests/message/ErrorOutputChild.h"

int main(int argc, char** argv) {
  if (argc >= 2 && std::string_view(argv[1]) == pendrel_test::kErrorOutputChildArgument) {
    return pendrel_test::RunErrorOutputChild(argc - 2, argv + 2);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
