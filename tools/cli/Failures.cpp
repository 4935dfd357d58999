#include "tools/cli/Failures.h"

#include <system_error>

#include "tools/cli/Signals.h"

namespace PendrelCli {
namespace {

using Pendrel::EChannelFailure;

// Codes of ReadFailed and WriteFailed that the channel makes itself rather than the system
// (ChannelFailure.h); other codes are the system's error numbers.
constexpr std::uint32_t kLyingHeaderCode = 13;
constexpr std::uint32_t kMessageTooLargeCode = 8;
constexpr std::uint32_t kWriteTimedOutCode = 258;
constexpr std::uint32_t kWriteCutShortCode = 29;

struct CCodeText {
  EChannelFailure Failure;
  std::uint32_t Code;
  const char* Text;
};

// Failures whose code says more than the system's text would.
constexpr CCodeText kCodeTexts[] = {
    {EChannelFailure::ReadFailed, kLyingHeaderCode,
     "the handler sent a broken packet (its header announces more than the packet holds)"},
    {EChannelFailure::ReadFailed, kMessageTooLargeCode,
     "the handler sent a message larger than the pipe takes"},
    {EChannelFailure::ReadFailed, Pendrel::kPacketTooLargeCode,
     "the handler sent a packet larger than the pipe takes"},
    {EChannelFailure::ReadFailed, Pendrel::kReceiveQueueFullCode,
     "the handler sent more messages than it was asked for"},
    {EChannelFailure::WriteFailed, kWriteTimedOutCode,
     "the handler did not take the request from the pipe in time"},
    {EChannelFailure::WriteFailed, kWriteCutShortCode, "the request could be written only in part"},
};

struct CFailureText {
  EChannelFailure Failure;
  const char* Text;
  bool WithSystemText;  // followed by ": " and the system's text for the code
};

constexpr CFailureText kFailureTexts[] = {
    {EChannelFailure::None, "", false},
    {EChannelFailure::OpenTimedOut, "the handler did not connect within the time limit", false},
    {EChannelFailure::OpenFailed, "the pipe could not be made", true},
    {EChannelFailure::NoClient, "the handler ended before it connected", false},
    {EChannelFailure::Unhandled, "the pipe failed unexpectedly (out of memory)", false},
    {EChannelFailure::PeerGone, "the handler closed the pipe", false},
    {EChannelFailure::ReadFailed, "reading the handler's answer failed", true},
    {EChannelFailure::PacketTimedOut, "the handler stopped in the middle of a message", false},
    {EChannelFailure::WriteFailed, "writing the request to the handler failed", true},
    {EChannelFailure::LaunchFailed, "the handler program could not be started", true},
};

}  // namespace

std::string ExplainChannelFailure(const Pendrel::CChannelFailure& failure) {
  for (const CCodeText& row : kCodeTexts) {
    if (row.Failure == failure.Failure && row.Code == failure.Code) return row.Text;
  }
  for (const CFailureText& row : kFailureTexts) {
    if (row.Failure != failure.Failure) continue;
    std::string text = row.Text;
    if (failure.Failure == EChannelFailure::PacketTimedOut) {
      text += " (" + std::to_string(failure.Code) + " more packets were due)";
    } else if (row.WithSystemText && failure.Code != 0) {
      text += ": " + SystemErrorText(failure.Code);
    }
    return text;
  }
  return "the pipe failed (failure " + std::to_string(static_cast<int>(failure.Failure)) +
         ", code " + std::to_string(failure.Code) + ")";
}

std::string ExplainHandlerEnd(const CTolvane::CHandlerExit& end) {
  switch (end.How) {
    case CTolvane::EHandlerEnd::Exited:
      return "it exited with status " + std::to_string(end.Code);
    case CTolvane::EHandlerEnd::Signaled:
      return "it was killed by " + SignalName(end.Code);
    case CTolvane::EHandlerEnd::None:
    case CTolvane::EHandlerEnd::Running:
      break;
  }
  return "";
}

std::string SystemErrorText(std::uint32_t code) {
  std::string text = std::system_category().message(static_cast<int>(code));
  // Windows ends its texts with a full stop and a line end.
  while (!text.empty() &&
         (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '.')) {
    text.pop_back();
  }
  return text;
}

}  // namespace PendrelCli
