#include <unistd.h>  // close

#include "base/UniqueFd.h"

namespace Pendrel::base {

void FdTraits::Close(Handle fd) noexcept { ::close(fd); }

}  // namespace Pendrel::base
