// Windows: the handler writes to pendrel's standard error as it stands. Standard output still
// carries only the response; the lines are not prefixed.
#include "tools/cli/HandlerOutput.h"

namespace PendrelCli {

struct CHandlerOutput::Impl {};

CHandlerOutput::CHandlerOutput(std::FILE*) : m_impl(std::make_unique<Impl>()) {}

CHandlerOutput::~CHandlerOutput() = default;

void CHandlerOutput::Attach(CTolvane::CHandler& handler) {
  handler.ChildOutput = CTolvane::EChildOutput::HostStderr;
}

void CHandlerOutput::Started() {}

void CHandlerOutput::Finish(std::uint32_t) {}

}  // namespace PendrelCli
