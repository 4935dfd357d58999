#include "tests/reliability/fault_handler/Squat.h"

#include <fstream>

#include "base/Deadline.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/reliability/fault_handler/FaultHandler.h"

namespace pendrel_fault {

void Report(const std::string& reportFile, const char* line) {
  std::ofstream out(reportFile, std::ios::app);
  out << line << '\n';
}

int SquatWithTransport(const std::wstring& name, const std::string& reportFile,
                       std::chrono::milliseconds lifetime) {
  Pendrel::detail::PipeTransport endpoint;
  if (endpoint.Listen(name) != 0) return kExitSquatFailed;
  Report(reportFile, "ready");
  const Pendrel::base::Deadline deadline = Pendrel::base::Clock::now() + lifetime;
  for (;;) {
    std::uint32_t error = 0;
    switch (endpoint.Accept(0, deadline, error)) {
      case Pendrel::detail::EAcceptResult::Connected:
        Report(reportFile, "connected");
        return kExitNormal;
      case Pendrel::detail::EAcceptResult::Woken:
        break;
      case Pendrel::detail::EAcceptResult::TimedOut:
      case Pendrel::detail::EAcceptResult::Failed:
        return kExitNormal;
    }
  }
}

}  // namespace pendrel_fault
