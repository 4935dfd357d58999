// ReserveLarge: room made as reserve makes it, the contents kept, small blocks left alone.
#include "base/LargeBuffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Pendrel::base::kLargeBufferThreshold;
using Pendrel::base::ReserveLarge;

TEST(LargeBuffer, ReservesAndKeepsTheContents) {
  for (const std::size_t capacity : {std::size_t{100}, kLargeBufferThreshold - 1,
                                     kLargeBufferThreshold, 3 * kLargeBufferThreshold + 17}) {
    std::string text = "contents so far";
    ReserveLarge(text, capacity);
    EXPECT_GE(text.capacity(), capacity);
    EXPECT_EQ(text, "contents so far") << capacity;
    const char* const data = text.data();
    text.append(capacity - text.size(), 'x');
    EXPECT_EQ(text.data(), data) << "no further growth: " << capacity;
  }
}

TEST(LargeBuffer, LeavesRoomThatIsAlreadyThere) {
  std::string text;
  text.reserve(4 * kLargeBufferThreshold);
  text = "kept";
  const char* const data = text.data();
  ReserveLarge(text, kLargeBufferThreshold);
  EXPECT_EQ(text.data(), data);
  EXPECT_EQ(text, "kept");
}

}  // namespace
