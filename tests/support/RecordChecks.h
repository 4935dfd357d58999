// Comparisons of records field by field, with messages that name the field that differs,
// and progress reports written as their seven numbers.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include "message/CMimeFile.h"
#include "message/CResponse.h"

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

// The numbers of a progress report in field order: PhasePos, PhaseTotal, PhaseProgressPos,
// PhaseProgressTotal, TaskProgressPos, TaskProgressTotal, TaskProgressTime.
using ProgressNumbers = std::array<std::int32_t, 7>;

inline ProgressNumbers NumbersOf(const Pendrel::CProgress& progress) {
  return {progress.PhasePos,           progress.PhaseTotal,      progress.PhaseProgressPos,
          progress.PhaseProgressTotal, progress.TaskProgressPos, progress.TaskProgressTotal,
          progress.TaskProgressTime};
}

// A progress report holding `numbers` (in the order of NumbersOf), set.
inline Pendrel::CProgress SetProgress(const ProgressNumbers& numbers) {
  Pendrel::CProgress progress;
  progress.PhasePos = numbers[0];
  progress.PhaseTotal = numbers[1];
  progress.PhaseProgressPos = numbers[2];
  progress.PhaseProgressTotal = numbers[3];
  progress.TaskProgressPos = numbers[4];
  progress.TaskProgressTotal = numbers[5];
  progress.TaskProgressTime = numbers[6];
  progress.IsSet = true;
  return progress;
}

}  // namespace pendrel_test
