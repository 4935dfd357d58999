// Settings that tests change to keep themselves short and contained. Hosts have no use for
// them; they are not exported.
#pragma once

#include <cstdint>
#include <string>

namespace CTolvane::detail {

// How long Start waits for the handler to connect (10000 ms unless a test lowers it).
std::uint32_t StartConnectTimeLimitMs();
void SetStartConnectTimeLimitMs(std::uint32_t milliseconds);

// The folder the transaction log writes to, with a separator at the end. Empty (the
// default) means "HarnockLogs" beside the host program.
std::wstring LogFolderOverride();
void SetLogFolderOverride(const std::wstring& folder);

}  // namespace CTolvane::detail
