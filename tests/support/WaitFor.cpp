#include "tests/support/WaitFor.h"

#include <system_error>

namespace pendrel_test {

bool WaitForFile(const std::filesystem::path& file, std::chrono::milliseconds timeout) {
  return WaitFor(
      [&file] {
        std::error_code error;
        return std::filesystem::exists(file, error);
      },
      timeout);
}

}  // namespace pendrel_test
