#include <errno.h>
#include <signal.h>  // kill

#include "tests/handler/ProcessProbe.h"

namespace pendrel_test {

bool ProcessExists(std::uint32_t pid) {
  if (pid == 0) return false;
  // EPERM: it exists, but belongs to someone else.
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace pendrel_test
