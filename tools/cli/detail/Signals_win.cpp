// Windows: a console interrupt ends pendrel as the system does by default. The handler is in
// the library's job object, which ends it when pendrel ends, and a named pipe is no file, so
// nothing is left running or on disk; there is nothing to watch.
#include "tools/cli/Signals.h"

namespace PendrelCli {

struct CStopSignals::Impl {};

CStopSignals::CStopSignals(std::function<std::uint32_t(int)>, std::uint32_t)
    : m_impl(std::make_unique<Impl>()) {}

CStopSignals::~CStopSignals() = default;

int CStopSignals::Received() const { return 0; }

std::string SignalName(int signal) { return "signal " + std::to_string(signal); }

}  // namespace PendrelCli
