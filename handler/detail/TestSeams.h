// Settings that tests change to keep themselves short and contained. Hosts have no use for
// them; they are not exported.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CTolvane::detail {

// How long Start waits for the handler to connect (10000 ms unless a test lowers it).
std::uint32_t StartConnectTimeLimitMs();
void SetStartConnectTimeLimitMs(std::uint32_t milliseconds);

// The time limit of the channels that Start opens (60000 ms unless a test lowers it): for a
// packet to be written, for the gap between two packets of one message, and for the drain
// when the handler is let go.
std::uint32_t ChannelTimeLimitMs();
void SetChannelTimeLimitMs(std::uint32_t milliseconds);

// Pipe names that Start tries before random ones, first to last, each taken once; for tests
// that must know the name in advance (to sit on it, or to connect to it first).
void SetNextPipeNames(std::vector<std::wstring> names);

// The folder the transaction log writes to, with a separator at the end. Empty (the
// default) means "HarnockLogs" beside the host program.
std::wstring LogFolderOverride();
void SetLogFolderOverride(const std::wstring& folder);

}  // namespace CTolvane::detail
