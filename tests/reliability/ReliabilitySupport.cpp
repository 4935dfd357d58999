#include "tests/reliability/ReliabilitySupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/support/Platform.h"
#include "tests/support/WaitFor.h"

namespace pendrel_reliability {
namespace {

std::wstring Quoted(const std::filesystem::path& path) { return L"\"" + path.wstring() + L"\""; }

std::size_t LineCount(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::size_t lines = 0;
  for (std::string line; std::getline(in, line);) ++lines;
  return lines;
}

}  // namespace

Pendrel::CChannelFailure PeerGone() {
  return {Pendrel::EChannelFailure::PeerGone, pendrel_test::PeerGoneCode()};
}

Pendrel::CChannelFailure RefusedPacket(std::uint32_t code) {
  return {Pendrel::EChannelFailure::ReadFailed, code};
}

Pendrel::CChannelFailure PacketTimedOut(std::uint32_t remaining) {
  return {Pendrel::EChannelFailure::PacketTimedOut, remaining};
}

Pendrel::CChannelFailure NoFailure() { return {}; }

FaultHost::FaultHost(const std::wstring& options) {
  std::wstring arguments = L"--pid-file " + Quoted(m_dir.path() / "pid.txt") + L" --record " +
                           Quoted(m_dir.path() / "record.txt") + L" --answered " +
                           Quoted(m_dir.path() / "answered.txt");
  if (!options.empty()) arguments += L" " + options;
  m_result = handler.Start(pendrel_fault::FaultHandlerPath(), 0, arguments);
}

std::uint32_t FaultHost::ProcessId() {
  if (m_pid == 0) {
    pendrel_test::WaitFor(
        [this] {
          std::ifstream in(m_dir.path() / "pid.txt");
          std::uint32_t pid = 0;
          if (in >> pid) m_pid = pid;
          return m_pid != 0;
        },
        5s);
  }
  return m_pid;
}

std::size_t FaultHost::Received() const { return LineCount(m_dir.path() / "record.txt"); }

bool FaultHost::WaitForAnswersSent(std::size_t count, std::chrono::milliseconds timeout) const {
  return pendrel_test::WaitFor([&] { return LineCount(m_dir.path() / "answered.txt") >= count; },
                               timeout);
}

Pendrel::CChannelFailure FaultHost::Failure() {
  const Pendrel::CChannelFailure failure = handler.GetChannelFailure();
  EXPECT_EQ(handler.GetResponseErrorMessage(), Pendrel::NamedPipeChannel::TextOf(failure));
  return failure;
}

std::string FaultHost::ErrorMessage() {
  return Pendrel::Utf16ToUtf8(handler.GetResponseErrorMessage());
}

Pendrel::CRequest FileRequest(const std::wstring& command, std::string data) {
  Pendrel::CRequest request;
  request.Command = command;
  Pendrel::CMimeFile file;
  file.Type = Pendrel::Binary;
  file.Name = L"data";
  file.FileName = L"data.bin";
  file.Data = std::move(data);
  request.InputData.push_back(std::move(file));
  return request;
}

std::string EchoProblem(CTolvane::CHandler& handler, const std::wstring& command,
                        const std::string& data) {
  Pendrel::CResponse response;
  const CTolvane::EErrorCode code = handler.HandleRequest(FileRequest(command, data), response);
  if (code != CTolvane::Ok) {
    return "error code " + std::to_string(code) + ": " +
           Pendrel::Utf16ToUtf8(handler.GetResponseErrorMessage());
  }
  if (response.Data.size() != 1) return "files: " + std::to_string(response.Data.size());
  const Pendrel::CMimeFile& file = response.Data[0];
  if (file.FileName != command)
    return "answer to another request: " + Pendrel::Utf16ToUtf8(file.FileName);
  if (file.Name != pendrel_fault::ChecksumText(data)) {
    return "the handler received other bytes: " + Pendrel::Utf16ToUtf8(file.Name);
  }
  if (file.Data != data) return "the answer brought other bytes back";
  return std::string();
}

}  // namespace pendrel_reliability
