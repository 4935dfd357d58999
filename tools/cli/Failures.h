// The English that pendrel says a handler's failure in: why the pipe failed and how the
// handler's process ended, from the library's codes (its own texts are worded for a host's
// logs, in Russian, and are shown only with --verbose). Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "handler/CHandler.h"

namespace PendrelCli {

// What the pipe's failure means for a person, e.g. "the handler closed the pipe" or "the
// handler sent a broken packet (its header announces more than the packet holds)"; "" for
// EChannelFailure::None.
std::string ExplainChannelFailure(const Pendrel::CChannelFailure& failure);

// How the process ended: "it exited with status 64", "it was killed by SIGABRT"; "" while it
// runs or when there was none.
std::string ExplainHandlerEnd(const CTolvane::CHandlerExit& end);

// The system's text for an error number (errno on Linux, GetLastError() on Windows), e.g.
// "No such file or directory".
std::string SystemErrorText(std::uint32_t code);

}  // namespace PendrelCli
