#include <unistd.h>  // close

#include "base/UniqueFd.h"

namespace Pendrel::base {

void UniqueFd::Reset(int fd) noexcept {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = fd;
}

}  // namespace Pendrel::base
