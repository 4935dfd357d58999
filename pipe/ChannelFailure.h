// Why the pipe to a handler failed: the step that failed and a number, reported next to the
// channel's error text (which stays worded for the host's logs, in Russian). Hosts that
// explain failures in their own words, and tests, switch on these instead of parsing text.
#pragma once

#include <cstdint>

namespace Pendrel {

enum class EChannelFailure : std::int32_t {
  None = 0,
  OpenTimedOut,    // the handler did not connect within the open time limit (Code 0)
  OpenFailed,      // the pipe could not be made or opened (Code: the system's error number)
  NoClient,        // no client came: its process ended, or the wait's own limit passed
  Unhandled,       // the channel's worker failed unexpectedly (out of memory)
  PeerGone,        // the pipe broke while waiting for data, typically the peer closed its end
                   // (Code: the system's error number, EPIPE / ERROR_BROKEN_PIPE)
  ReadFailed,      // an announced packet could not be read or was refused (Code: the system's
                   // error number; 13 a header that lies, 8 a message over the size limit,
                   // kPacketTooLargeCode and kReceiveQueueFullCode below)
  PacketTimedOut,  // a message stopped mid-way (Code: the packets still expected)
  WriteFailed,     // a packet could not be written (Code: the system's error number; 258
                   // not written within the time limit, 29 cut short)
  LaunchFailed,    // the handler program could not be started (Code: the system's error
                   // number); reported by the handler client, not by the channel
};

// Codes of ReadFailed that the channel makes itself. Like 13 and 8 they are Windows error
// numbers, so that a Windows reader of a log recognises them, and equal on both platforms.
// A server end refused a packet larger than the largest it adopts (1 MiB by default);
// ERROR_INSUFFICIENT_BUFFER.
inline constexpr std::uint32_t kPacketTooLargeCode = 122;
// More messages arrived unasked than the receive queue keeps; they were dropped.
// ERROR_NOT_ENOUGH_QUOTA.
inline constexpr std::uint32_t kReceiveQueueFullCode = 1816;

// A failure and its number; Failure None (and Code 0) while all is well.
struct CChannelFailure {
  EChannelFailure Failure = EChannelFailure::None;
  std::uint32_t Code = 0;
};

inline bool operator==(const CChannelFailure& a, const CChannelFailure& b) {
  return a.Failure == b.Failure && a.Code == b.Code;
}
inline bool operator!=(const CChannelFailure& a, const CChannelFailure& b) { return !(a == b); }

}  // namespace Pendrel
