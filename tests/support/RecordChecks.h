// Comparisons of records field by field, with messages that name the field that differs.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "message/CMimeFile.h"

namespace pendrel_test {

inline void ExpectSameFiles(const std::vector<Pendrel::CMimeFile>& actual,
                            const std::vector<Pendrel::CMimeFile>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) {
    EXPECT_EQ(actual[i].Type, expected[i].Type) << i;
    EXPECT_EQ(actual[i].FileName, expected[i].FileName) << i;
    EXPECT_EQ(actual[i].Name, expected[i].Name) << i;
    // Not EXPECT_EQ: a mismatch would print megabytes of file data.
    EXPECT_TRUE(actual[i].Data == expected[i].Data) << i;
    EXPECT_EQ(actual[i].IsAttachment, expected[i].IsAttachment) << i;
  }
}

}  // namespace pendrel_test
