// pendrel_fault_handler: a handler program that breaks the pipe protocol on purpose (see
// FaultHandler.h for its arguments). It drives the channel's transport and framing by hand,
// never the channel itself, so it can stop, lie or flood wherever a test wants it to.
#include <algorithm>  // std::max, std::min
#include <chrono>
#include <csignal>  // std::signal
#include <cstdint>
#include <cstdio>
#include <cstdlib>  // std::_Exit, std::strtoull
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/Deadline.h"
#include "json/TextConversion.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "pipe/detail/PacketFraming.h"
#include "protocol/HandlerProtocol.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/reliability/fault_handler/Squat.h"
#include "tests/support/ForgedPacket.h"
#include "tests/support/PacketPipe.h"
#include "tests/support/PatternBytes.h"

namespace pendrel_fault {
namespace {

using namespace std::chrono_literals;
using Pendrel::detail::kPacketHeaderSize;
using pendrel_test::PacketPipe;
using pendrel_test::PatternBytes;

constexpr auto kConnectTime = 10s;
constexpr std::uint32_t kDefaultLifetimeMs = 60000;

struct Options {
  std::wstring pipeName;
  std::uint32_t packetSize = 32768;
  unsigned delayMs = 0;
  unsigned connectDelayMs = 0;
  std::string recordFile;
  std::string answeredFile;
  std::string pidFile;
  std::uint32_t lifetimeMs = kDefaultLifetimeMs;
  unsigned flood = 0;
  std::size_t floodBytes = 0;
  std::optional<unsigned> deepAnswer;
  std::optional<std::uint64_t> answerBytes;
  std::optional<unsigned> crashAfterPackets;
  std::optional<unsigned> hangAfterPackets;
  std::string garbage;
  std::optional<std::pair<std::uint32_t, std::uint32_t>> header;
  std::wstring squatName;
  std::string squatReport;
  bool squatRaw = false;
  bool stubborn = false;
};

bool ReadNumber(const char* text, std::uint64_t& value) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  value = std::strtoull(text, &end, 10);
  return *end == '\0';
}

template <typename Number>
bool ReadNumber(const char* text, Number& value) {
  std::uint64_t wide = 0;
  if (!ReadNumber(text, wide) || wide > static_cast<Number>(-1)) return false;
  value = static_cast<Number>(wide);
  return true;
}

template <typename Number>
bool ReadNumber(const char* text, std::optional<Number>& value) {
  Number number{};
  if (!ReadNumber(text, number)) return false;
  value = number;
  return true;
}

std::wstring Wide(std::string_view text) { return std::wstring(text.begin(), text.end()); }

// Whether `argument` is the start argument `which`; its value then goes to `value`.
bool IsStartArgument(std::string_view argument, Pendrel::protocol::EStartArgument which,
                     std::string_view& value) {
  const std::wstring_view prefix = Pendrel::protocol::StartArgumentPrefix(which);
  if (argument.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (static_cast<wchar_t>(argument[i]) != prefix[i]) return false;
  }
  value = argument.substr(prefix.size());
  return true;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    bool ok = true;
    using Pendrel::protocol::EStartArgument;
    std::string_view value;
    if (IsStartArgument(argument, EStartArgument::PipeName, value)) {
      options.pipeName = Wide(value);
      continue;
    }
    if (IsStartArgument(argument, EStartArgument::Mode, value) ||
        IsStartArgument(argument, EStartArgument::ExValue, value)) {
      continue;
    }
    if (argument == "--stubborn") {
      options.stubborn = true;
      continue;
    }
    if (argument == "--packet-size") {
      ok = ReadNumber(next, options.packetSize) && options.packetSize > kPacketHeaderSize;
    } else if (argument == "--delay-ms") {
      ok = ReadNumber(next, options.delayMs);
    } else if (argument == "--connect-delay-ms") {
      ok = ReadNumber(next, options.connectDelayMs);
    } else if (argument == "--record" && next != nullptr) {
      options.recordFile = next;
    } else if (argument == "--answered" && next != nullptr) {
      options.answeredFile = next;
    } else if (argument == "--pid-file" && next != nullptr) {
      options.pidFile = next;
    } else if (argument == "--lifetime-ms") {
      ok = ReadNumber(next, options.lifetimeMs);
    } else if (argument == "--flood") {
      ok = ReadNumber(next, options.flood);
    } else if (argument == "--flood-bytes") {
      ok = ReadNumber(next, options.floodBytes);
    } else if (argument == "--deep-answer") {
      ok = ReadNumber(next, options.deepAnswer);
    } else if (argument == "--answer-bytes") {
      ok = ReadNumber(next, options.answerBytes);
    } else if (argument == "--crash-after-packets") {
      ok = ReadNumber(next, options.crashAfterPackets);
    } else if (argument == "--hang-after-packets") {
      ok = ReadNumber(next, options.hangAfterPackets);
    } else if (argument == "--garbage" && next != nullptr) {
      options.garbage = next;
      ok = options.garbage == "short" || options.garbage == "ones";
    } else if (argument == "--header" && next != nullptr) {
      const std::string text = next;
      const std::size_t comma = text.find(',');
      std::uint32_t remaining = 0;
      std::uint32_t payload = 0;
      ok = comma != std::string::npos && ReadNumber(text.substr(0, comma).c_str(), remaining) &&
           ReadNumber(text.substr(comma + 1).c_str(), payload);
      options.header.emplace(remaining, payload);
    } else if ((argument == "--squat" || argument == "--squat-raw") && next != nullptr &&
               i + 2 < argc) {
      options.squatRaw = argument == "--squat-raw";
      options.squatName = Wide(next);
      options.squatReport = argv[i + 2];
      ++i;
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "pendrel_fault_handler: bad argument %s\n", argv[i]);
      return false;
    }
    ++i;  // the option's value
  }
  return !options.pipeName.empty() || !options.squatName.empty();
}

std::string DeepAnswer(unsigned depth) {
  std::string text = "{\"status\":0,\"Parameters\":{\"deep\":";
  text.append(depth, '[');
  text.append(depth, ']');
  text += "}}";
  return text;
}

std::string AnswerTo(const Options& options, const std::string& message) {
  if (options.deepAnswer) return DeepAnswer(*options.deepAnswer);
  Pendrel::CRequest request;
  request.FromJsonString(message);
  if (options.answerBytes) {
    Pendrel::CMimeFile file;
    file.Type = Pendrel::Binary;
    file.Data = PatternBytes(static_cast<std::size_t>(*options.answerBytes));
    request.InputData.assign(1, file);
  }
  return ChecksumAnswer(request, message).ToJsonString();
}

void Record(const Options& options, const std::string& message) {
  if (options.recordFile.empty()) return;
  std::ofstream out(options.recordFile, std::ios::binary | std::ios::app);
  out << message.size() << ' ' << Pendrel::Utf16ToUtf8(ChecksumText(message)) << '\n';
}

void RecordAnswered(const Options& options, std::size_t answerBytes) {
  if (options.answeredFile.empty()) return;
  std::ofstream out(options.answeredFile, std::ios::binary | std::ios::app);
  out << answerBytes << '\n';
}

bool IsBreaking(const Options& options) {
  return options.crashAfterPackets || options.hangAfterPackets || !options.garbage.empty() ||
         options.header;
}

// Answers the first message by breaking the protocol as the options say.
int Break(const Options& options, PacketPipe& pipe, const std::string& message) {
  if (options.crashAfterPackets || options.hangAfterPackets) {
    const std::size_t written =
        options.crashAfterPackets ? *options.crashAfterPackets : *options.hangAfterPackets;
    // Blanks after the document keep it valid JSON, should it ever arrive whole.
    std::string answer = AnswerTo(options, message);
    answer.resize(std::max(answer.size(), written * pipe.PayloadRoom() + 1), ' ');
    pipe.WritePackets(answer, written);
    // No clean-up and no closing message: the process is simply gone.
    if (options.crashAfterPackets) std::_Exit(kExitCrashed);
  } else if (options.garbage == "short") {
    pipe.WritePacket("hello");
  } else if (options.garbage == "ones") {
    pipe.WritePacket(std::string(pipe.PacketSize(), '\xFF'));
  } else if (options.header) {
    pipe.WritePacket(pendrel_test::ForgedPacket(options.header->first, options.header->second,
                                                std::string(pipe.PayloadRoom(), 'x'),
                                                pipe.PacketSize()));
  }
  pipe.WaitForEnd();
  return kExitNormal;
}

int Serve(const Options& options) {
  if (options.connectDelayMs > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options.connectDelayMs));
  }
  PacketPipe pipe(options.packetSize);
  if (!pipe.Connect(options.pipeName, kConnectTime)) return kExitNoConnection;
  for (unsigned k = 1; k <= options.flood; ++k) {
    if (!pipe.WriteMessage(FloodAnswer(k, options.floodBytes))) return kExitNormal;
  }
  std::string message;
  while (pipe.ReadMessage(message)) {
    Record(options, message);
    if (options.delayMs > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(options.delayMs));
    if (IsBreaking(options)) return Break(options, pipe, message);
    std::string answer = AnswerTo(options, message);
    const std::size_t answerSize = answer.size();
    if (!pipe.WriteMessage(std::move(answer))) break;
    RecordAnswered(options, answerSize);
  }
  // A handler stuck elsewhere: the closed pipe does not end it; only its lifetime does.
  if (options.stubborn) std::this_thread::sleep_for(std::chrono::milliseconds(options.lifetimeMs));
  return kExitNormal;
}

int Main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return kExitBadArguments;
  if (options.stubborn) std::signal(SIGTERM, SIG_IGN);
  if (!options.pidFile.empty()) {
    std::ofstream(options.pidFile) << CurrentProcessId() << '\n';
  }
  std::thread([limit = std::chrono::milliseconds(options.lifetimeMs)] {
    std::this_thread::sleep_for(limit);
    std::_Exit(kExitLifetime);
  }).detach();
  const auto lifetime = std::chrono::milliseconds(options.lifetimeMs);
  if (!options.squatName.empty()) {
    return options.squatRaw ? SquatRaw(options.squatName, options.squatReport, lifetime)
                            : SquatWithTransport(options.squatName, options.squatReport, lifetime);
  }
  return Serve(options);
}

}  // namespace
}  // namespace pendrel_fault

int main(int argc, char** argv) { return pendrel_fault::Main(argc, argv); }
