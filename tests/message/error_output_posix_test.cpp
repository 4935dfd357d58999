// What Error writes where stdout is a glibc stream with an orientation: UTF-8 bytes, and
// stdout left as the host had it.
#include <gtest/gtest.h>

#include <string>

#include "tests/message/ErrorOutputChild.h"

namespace pendrel_test {
namespace {

TEST(ResponseErrorOutput, WritesUtf8WithFourBytesAboveFFFF) {
  EXPECT_EQ(ErrorOutputOfChild("utf8"),
            "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\n"
            "after\n");
}

TEST(ResponseErrorOutput, LeavesStdoutWithoutOrientation) {
  EXPECT_EQ(ErrorOutputOfChild("orientation"), "first\norientation 0\n");
}

}  // namespace
}  // namespace pendrel_test
