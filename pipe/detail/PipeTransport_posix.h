// What the Linux transport offers beyond PipeTransport.h: a test seam for the folder its
// server ends fall back to without XDG_RUNTIME_DIR.
#pragma once

#include <string>

namespace Pendrel::detail {

// Makes <root>/pendrel-<uid> the shared fallback folder ("/tmp" is the root unless a test
// says otherwise), and forgets the fresh private folder made so far (removed if empty), so
// that the next server end decides again. For tests; any thread.
void SetTempFolderRootForTesting(std::string root);

}  // namespace Pendrel::detail
