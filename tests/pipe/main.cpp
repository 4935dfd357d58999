// The pipe tests' own main: "--pipe-child ..." runs this program as the other end of a pipe
// for the two-process tests (see RunPipeChild); anything else runs the tests.
#include <gtest/gtest.h>

#include <string_view>

#include "tests/pipe/PipeTestSupport.h"

int main(int argc, char** argv) {
  if (argc >= 2 && std::string_view(argv[1]) == "--pipe-child") {
    return pendrel_test::RunPipeChild(argc - 2, argv + 2);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
