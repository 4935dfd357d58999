// Linux: a large block made by ReserveLarge is backed by huge pages once written, where the
// kernel gives them on request (transparent huge pages in "madvise" or "always" mode).
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "base/LargeBuffer.h"

namespace {

// The huge pages of anonymous memory in this process, in KiB; -1 when not reported.
long AnonHugePagesKiB() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  std::string line;
  while (std::getline(rollup, line)) {
    if (line.rfind("AnonHugePages:", 0) == 0) return std::stol(line.substr(14));
  }
  return -1;
}

// "always [madvise] never": the bracketed word is the mode in force.
std::string TransparentHugePageMode() {
  std::ifstream file("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string modes;
  std::getline(file, modes);
  const std::size_t open = modes.find('[');
  const std::size_t close = modes.find(']', open);
  if (open == std::string::npos || close == std::string::npos) return std::string();
  return modes.substr(open + 1, close - open - 1);
}

TEST(LargeBufferPosix, LargeBlockIsBackedByHugePagesOnceWritten) {
  const std::string mode = TransparentHugePageMode();
  if (mode != "madvise" && mode != "always") {
    GTEST_SKIP() << "this kernel gives no huge pages on request (mode '" << mode << "')";
  }
  const long before = AnonHugePagesKiB();
  ASSERT_GE(before, 0);
  std::string text;
  constexpr std::size_t kSize = std::size_t{32} << 20;
  Pendrel::base::ReserveLarge(text, kSize);
  text.append(kSize, 'h');
  // At least half of the block: its ends need not lie on huge-page boundaries, and the
  // kernel may fall back to small pages when it has no free huge page at that moment.
  EXPECT_GE(AnonHugePagesKiB() - before, static_cast<long>(kSize / 2 / 1024));
}

}  // namespace
