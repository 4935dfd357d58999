// What CHandler::Start takes from its surroundings beyond its arguments: the time limits of
// the connection and of the channel, the pipe names to try first and the transaction log's
// folder. Hosts never change them. Tests do, for one thread and one scope at a time, with a
// ScopedHandlerSettings; Start copies what it needs into the handler it starts, so a handler
// keeps its settings after the scope ends and on every thread. A CHandlerPool takes the
// settings in force on the thread that constructs it (without the pipe names) for every
// handler it starts on its own threads.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "pipe/NamedPipeChannel.h"
#include "protocol/HandlerProtocol.h"

namespace CTolvane::detail {

struct HandlerSettings {
  // How long Start waits for the handler to connect.
  std::uint32_t connectTimeLimitMs = Pendrel::protocol::kConnectTimeLimitMs;
  // The channel's time limit: for a packet to be written, for the gap between two packets
  // of one message, and for the drain when the handler is let go.
  std::uint32_t channelTimeLimitMs = Pendrel::NamedPipeChannel::kDefaultTimeLimitMs;
  // Pipe names that Start tries before random ones, first to last, each taken once (Start
  // removes it); for tests that must know the name in advance.
  std::deque<std::wstring> pipeNames;
  // The transaction log's folder, with a separator at the end. Empty: "HarnockLogs" beside
  // the host program.
  std::wstring logFolder;
};

// The settings of the innermost ScopedHandlerSettings alive on the calling thread; null when
// there is none (the defaults above apply).
HandlerSettings* ThreadHandlerSettings();

// Puts `settings` in force on the constructing thread until destroyed; scopes nest. Neither
// copyable nor movable: it must end on the thread and in the order it began.
class ScopedHandlerSettings {
 public:
  explicit ScopedHandlerSettings(HandlerSettings settings = {});
  ~ScopedHandlerSettings();
  ScopedHandlerSettings(const ScopedHandlerSettings&) = delete;
  ScopedHandlerSettings& operator=(const ScopedHandlerSettings&) = delete;

  HandlerSettings& Get() { return m_settings; }

 private:
  HandlerSettings m_settings;
  HandlerSettings* m_outer;
};

}  // namespace CTolvane::detail
