// The handler figures: a small request's round trip through CHandler to a handler built with
// the kit, a 64 MiB request and answer through it, and what 50 idle handlers cost their host;
// each beside the floor of the transport and what a host might use instead.
//
// Names:
//   RoundTrip/pendrel             CHandler::HandleRequest to the echo handler
//   RoundTrip/raw.seqpacket       one 32768-byte packet each way over a SOCK_SEQPACKET
//                                 socketpair between two processes: the transport's floor
//   RoundTrip/zeromq.ipc          ZeroMQ REQ/REP over ipc:// with the same JSON bytes
//   RoundTrip/json.only           the JSON work of a round trip alone (for the breakdown)
//   Transfer/<size>/pendrel       a request with one file of <size> and the echo's answer
//   Transfer/<size>/raw.seqpacket the same numbers of bytes each way in 32 KiB packets
//   Idle/<n>/<s>/pendrel          n started, idle handlers for s seconds
//   Idle/<n>/<s>/poll.blocking    n threads blocked in poll()
//   Idle/<n>/<s>/poll.sleep10ms   n threads polling every 10 ms
//   Memcpy/<size>
// Round trips report p50_us and p99_us; transfers their file bytes both ways as bytes
// processed; idle runs cpu_pct (host CPU time in % of one core) and wakeups_per_handler_s
// (context switches of all the host's threads per second and handler).
//
// The peers' far ends run in this same program started again in child mode
// (`--child <kind> ...`), so every figure crosses a process boundary.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchData.h"
#include "handler/CHandler.h"

extern char** environ;

namespace PendrelBench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPacketSize = 32768;
// Exchanges before the clock starts: the far end starts, connects and warms its caches.
constexpr int kWarmUps = 20;

std::wstring Widen(const char* text) {
  std::wstring wide;
  for (; *text != '\0'; ++text) wide += static_cast<wchar_t>(static_cast<unsigned char>(*text));
  return wide;
}

// The small request of the round trips and the echo handler's answer to it.
Pendrel::CRequest SmallRequest() { return MakeRequest(std::string(100, 'x')); }

std::string SmallAnswerText() {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
  const Pendrel::CRequest request = SmallRequest();
  response.Data = request.InputData;
  response.Parameters = request.RequestParams;
  return response.ToJsonString();
}

// --- Child processes ---

// This program, started again with `arguments` after "--child". Returns its process id.
pid_t SpawnChild(const std::vector<std::string>& arguments) {
  std::vector<std::string> all{"/proc/self/exe", "--child"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : all) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  return pid;
}

void WaitChild(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

bool SendAll(int fd, const char* data, std::size_t size) {
  for (std::size_t at = 0; at < size;) {
    const std::size_t count = size - at < kPacketSize ? size - at : kPacketSize;
    const ssize_t sent = ::send(fd, data + at, count, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    at += static_cast<std::size_t>(sent);
  }
  return true;
}

bool ReceiveAll(int fd, char* data, std::size_t size) {
  for (std::size_t at = 0; at < size;) {
    const ssize_t got = ::recv(fd, data + at, kPacketSize, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += static_cast<std::size_t>(got);
  }
  return true;
}

// Far end of the raw round trip: sends every packet straight back.
int SeqpacketEchoChild(int fd) {
  std::vector<char> packet(kPacketSize);
  for (;;) {
    const ssize_t got = ::recv(fd, packet.data(), packet.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return 0;
    if (::send(fd, packet.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) != got) return 1;
  }
}

// Far end of the raw transfer: takes `in` bytes whole, then sends `out` bytes back.
int SeqpacketTransferChild(int fd, std::size_t in, std::size_t out) {
  std::vector<char> buffer(in > out ? in : out);
  for (;;) {
    if (!ReceiveAll(fd, buffer.data(), in)) return 0;
    if (!SendAll(fd, buffer.data(), out)) return 1;
  }
}

// Far end of the ZeroMQ round trip: answers every message with the echo handler's answer,
// until a message "STOP".
int ZeroMqEchoChild(const std::string& endpoint) {
  const std::string answer = SmallAnswerText();
  void* context = zmq_ctx_new();
  void* socket = zmq_socket(context, ZMQ_REP);
  if (zmq_bind(socket, endpoint.c_str()) != 0) return 1;
  for (;;) {
    zmq_msg_t message;
    zmq_msg_init(&message);
    if (zmq_msg_recv(&message, socket, 0) < 0) return 1;
    const bool stop =
        zmq_msg_size(&message) == 4 && std::memcmp(zmq_msg_data(&message), "STOP", 4) == 0;
    zmq_msg_close(&message);
    if (zmq_send(socket, answer.data(), answer.size(), 0) < 0) return 1;
    if (stop) break;
  }
  zmq_close(socket);
  zmq_ctx_term(context);
  return 0;
}

int RunChild(int argc, char** argv) {
  const std::string kind = argc > 2 ? argv[2] : "";
  if (kind == "seqpacket-echo" && argc == 4) return SeqpacketEchoChild(std::atoi(argv[3]));
  if (kind == "seqpacket-transfer" && argc == 6) {
    return SeqpacketTransferChild(std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10),
                                  std::strtoull(argv[5], nullptr, 10));
  }
  if (kind == "zmq-echo" && argc == 4) return ZeroMqEchoChild(argv[3]);
  std::fprintf(stderr, "unknown child mode\n");
  return 64;
}

// A SOCK_SEQPACKET socketpair whose second end a child may inherit (only that end: a
// child holding ours too would never see it close).
struct SocketPair {
  int ours = -1;
  int theirs = -1;

  bool Open() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) return false;
    ours = fds[0];
    theirs = fds[1];
    return true;
  }
  void LetChildInherit() { ::fcntl(theirs, F_SETFD, 0); }
  ~SocketPair() {
    if (ours >= 0) ::close(ours);
    if (theirs >= 0) ::close(theirs);
  }
};

void ReportLatencies(benchmark::State& state, std::vector<double>& microseconds) {
  state.counters["p50_us"] = Percentile(microseconds, 0.50);
  state.counters["p99_us"] = Percentile(microseconds, 0.99);
}

// --- Round trip ---

bool StartEcho(benchmark::State& state, CTolvane::CHandler& handler) {
  if (handler.Start(Widen(PENDREL_BENCH_ECHO_HANDLER), 0, L"") != CTolvane::Ok) {
    state.SkipWithError("the echo handler did not start");
    return false;
  }
  return true;
}

void RoundTripPendrel(benchmark::State& state) {
  CTolvane::CHandler handler;
  if (!StartEcho(state, handler)) return;
  const Pendrel::CRequest request = SmallRequest();
  for (int i = 0; i < kWarmUps; ++i) {
    Pendrel::CResponse response;
    handler.HandleRequest(request, response);
  }
  std::vector<double> microseconds;
  for (auto _ : state) {
    Pendrel::CResponse response;
    const auto start = Clock::now();
    const CTolvane::EErrorCode code = handler.HandleRequest(request, response);
    const auto end = Clock::now();
    if (code != CTolvane::Ok || response.Data.size() != 1) {
      state.SkipWithError("the round trip failed");
      break;
    }
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    microseconds.push_back(seconds * 1e6);
  }
  ReportLatencies(state, microseconds);
}

void RoundTripRaw(benchmark::State& state) {
  SocketPair pair;
  if (!pair.Open()) {
    state.SkipWithError("socketpair failed");
    return;
  }
  pair.LetChildInherit();
  const pid_t child = SpawnChild({"seqpacket-echo", std::to_string(pair.theirs)});
  ::close(pair.theirs);
  pair.theirs = -1;
  std::vector<char> packet(kPacketSize, 'x');
  for (int i = 0; i < kWarmUps; ++i) {
    ::send(pair.ours, packet.data(), kPacketSize, MSG_NOSIGNAL);
    ::recv(pair.ours, packet.data(), kPacketSize, 0);
  }
  std::vector<double> microseconds;
  for (auto _ : state) {
    const auto start = Clock::now();
    const bool ok =
        ::send(pair.ours, packet.data(), kPacketSize, MSG_NOSIGNAL) ==
            static_cast<ssize_t>(kPacketSize) &&
        ::recv(pair.ours, packet.data(), kPacketSize, 0) == static_cast<ssize_t>(kPacketSize);
    const auto end = Clock::now();
    if (!ok) {
      state.SkipWithError("the raw round trip failed");
      break;
    }
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    microseconds.push_back(seconds * 1e6);
  }
  ::close(pair.ours);
  pair.ours = -1;
  WaitChild(child);
  ReportLatencies(state, microseconds);
}

void RoundTripZeroMq(benchmark::State& state) {
  const std::string endpoint = "ipc:///tmp/pendrel-bench-" + std::to_string(::getpid()) + ".ipc";
  const pid_t child = SpawnChild({"zmq-echo", endpoint});
  void* context = zmq_ctx_new();
  void* socket = zmq_socket(context, ZMQ_REQ);
  zmq_connect(socket, endpoint.c_str());  // connects whenever the far end binds
  const std::string request = SmallRequest().ToJsonString();
  zmq_msg_t answer;
  for (int i = 0; i < kWarmUps; ++i) {  // the first also waits for the far end to bind
    zmq_msg_init(&answer);
    zmq_send(socket, request.data(), request.size(), 0);
    zmq_msg_recv(&answer, socket, 0);
    zmq_msg_close(&answer);
  }
  std::vector<double> microseconds;
  for (auto _ : state) {
    zmq_msg_init(&answer);
    const auto start = Clock::now();
    const bool ok = zmq_send(socket, request.data(), request.size(), 0) >= 0 &&
                    zmq_msg_recv(&answer, socket, 0) >= 0;
    const auto end = Clock::now();
    zmq_msg_close(&answer);
    if (!ok) {
      state.SkipWithError("the ZeroMQ round trip failed");
      break;
    }
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    microseconds.push_back(seconds * 1e6);
  }
  zmq_send(socket, "STOP", 4, 0);
  zmq_msg_init(&answer);
  zmq_msg_recv(&answer, socket, 0);
  zmq_msg_close(&answer);
  zmq_close(socket);
  zmq_ctx_term(context);
  WaitChild(child);
  ::unlink(endpoint.substr(6).c_str());
  ReportLatencies(state, microseconds);
}

// The JSON work of one round trip, without the pipe: the host writes the request and reads
// the answer, the handler reads the request and writes the answer. Not a figure of its own:
// it tells how much of a round trip is JSON and how much is the transport.
void RoundTripJsonOnly(benchmark::State& state) {
  const Pendrel::CRequest request = SmallRequest();
  for (auto _ : state) {
    const std::string requestText = request.ToJsonString();
    Pendrel::CRequest received;
    received.FromJsonString(requestText);
    Pendrel::CResponse answer(static_cast<Pendrel::EStatus>(0));
    answer.Data = received.InputData;
    answer.Parameters = received.RequestParams;
    std::string answerText = answer.ToJsonString();
    Pendrel::CResponse response;
    response.FromJsonString(std::move(answerText));
    benchmark::DoNotOptimize(response.Data.data());
  }
}

// --- Transfer ---

void TransferPendrel(benchmark::State& state, std::size_t size) {
  CTolvane::CHandler handler;
  if (!StartEcho(state, handler)) return;
  const Pendrel::CRequest request = MakeRequest(MakeFileData(DataKind::C, size));
  const auto exchange = [&handler, &request, size] {
    Pendrel::CResponse response;
    return handler.HandleRequest(request, response) == CTolvane::Ok && response.Data.size() == 1 &&
           response.Data.front().Data.size() == size;
  };
  // One transfer before the clock, as a running server has made others before: the first
  // touch of memory the system never handed out before costs more than the exchange itself
  // on a virtual machine (the host backs the guest's pages on that touch), and the raw peer
  // reuses one warm buffer.
  if (!exchange()) {
    state.SkipWithError("the transfer failed");
    return;
  }
  for (auto _ : state) {
    if (!exchange()) {
      state.SkipWithError("the transfer failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 2 * size));
}

void TransferRaw(benchmark::State& state, std::size_t size) {
  // As many bytes as the JSON texts of the request and of the echo's answer.
  const Pendrel::CRequest request = MakeRequest(MakeFileData(DataKind::C, size));
  Pendrel::CResponse answer(static_cast<Pendrel::EStatus>(0));
  answer.Data = request.InputData;
  answer.Parameters = request.RequestParams;
  const std::string requestText = request.ToJsonString();
  const std::size_t answerSize = answer.ToJsonString().size();

  SocketPair pair;
  if (!pair.Open()) {
    state.SkipWithError("socketpair failed");
    return;
  }
  pair.LetChildInherit();
  const pid_t child = SpawnChild({"seqpacket-transfer", std::to_string(pair.theirs),
                                  std::to_string(requestText.size()), std::to_string(answerSize)});
  ::close(pair.theirs);
  pair.theirs = -1;
  std::string received;
  for (auto _ : state) {
    // A fresh buffer as a received message would be.
    received.assign(answerSize, '\0');
    if (!SendAll(pair.ours, requestText.data(), requestText.size()) ||
        !ReceiveAll(pair.ours, received.data(), answerSize)) {
      state.SkipWithError("the raw transfer failed");
      break;
    }
  }
  ::close(pair.ours);
  pair.ours = -1;
  WaitChild(child);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 2 * size));
}

// --- Idle handlers ---

struct Usage {
  double cpuSeconds = 0;
  long switches = 0;
};

Usage ReadUsage() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  Usage result;
  result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  result.switches = usage.ru_nvcsw + usage.ru_nivcsw;
  return result;
}

// Sleeps for `seconds` and reports what the process used meanwhile.
void MeasureIdle(benchmark::State& state, std::size_t count, double seconds) {
  const Usage before = ReadUsage();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  const Usage after = ReadUsage();
  state.SetIterationTime(elapsed);
  state.counters["cpu_pct"] = 100.0 * (after.cpuSeconds - before.cpuSeconds) / elapsed;
  state.counters["wakeups_per_handler_s"] =
      static_cast<double>(after.switches - before.switches) / elapsed / static_cast<double>(count);
}

void IdlePendrel(benchmark::State& state, std::size_t count, double seconds) {
  std::vector<std::unique_ptr<CTolvane::CHandler>> handlers;
  for (std::size_t i = 0; i < count; ++i) {
    handlers.push_back(std::make_unique<CTolvane::CHandler>());
    if (!StartEcho(state, *handlers.back())) return;
  }
  // One exchange each, so that every handler has settled into waiting.
  for (auto& handler : handlers) {
    CTolvane::CHandlerInfo info;
    handler->RequestHandlerInfo(info);
  }
  for (auto _ : state) MeasureIdle(state, count, seconds);
}

// `count` threads waiting on sockets, in poll() for good or polling every 10 ms.
void IdlePoll(benchmark::State& state, std::size_t count, double seconds, bool sleepLoop) {
  std::vector<std::unique_ptr<SocketPair>> pairs;
  std::vector<std::thread> threads;
  std::atomic<bool> stop{false};
  for (std::size_t i = 0; i < count; ++i) {
    pairs.push_back(std::make_unique<SocketPair>());
    if (!pairs.back()->Open()) {
      state.SkipWithError("socketpair failed");
      return;
    }
    const int fd = pairs.back()->ours;
    threads.emplace_back([fd, sleepLoop, &stop] {
      pollfd entry{fd, POLLIN, 0};
      while (!stop.load()) {
        if (::poll(&entry, 1, sleepLoop ? 0 : -1) > 0) return;
        if (sleepLoop) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    });
  }
  for (auto _ : state) MeasureIdle(state, count, seconds);
  stop = true;
  for (auto& pair : pairs) ::shutdown(pair->theirs, SHUT_RDWR);  // wakes the blocked polls
  for (std::thread& thread : threads) thread.join();
}

void RegisterAll() {
  const bool smoke = SmokeRun();
  const std::size_t transferSize = smoke ? std::size_t{256} << 10 : std::size_t{64} << 20;
  const std::size_t idleCount = smoke ? 3 : 50;
  const double idleSeconds = smoke ? 0.2 : 10;

  benchmark::RegisterBenchmark(("Memcpy/" + SizeName(transferSize)).c_str(), MemcpyBaseline,
                               transferSize)
      ->Unit(benchmark::kMillisecond);
  for (auto [name, function] : {std::pair{"RoundTrip/pendrel", RoundTripPendrel},
                                std::pair{"RoundTrip/raw.seqpacket", RoundTripRaw},
                                std::pair{"RoundTrip/zeromq.ipc", RoundTripZeroMq}}) {
    benchmark::RegisterBenchmark(name, function)->UseManualTime()->Unit(benchmark::kMicrosecond);
  }
  benchmark::RegisterBenchmark("RoundTrip/json.only", RoundTripJsonOnly)
      ->Unit(benchmark::kMicrosecond);
  const std::string transfer = "Transfer/" + SizeName(transferSize) + "/";
  // Both ends work, in two processes: the rate is of the wall clock, not of this thread's CPU.
  benchmark::RegisterBenchmark((transfer + "pendrel").c_str(), TransferPendrel, transferSize)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark((transfer + "raw.seqpacket").c_str(), TransferRaw, transferSize)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);

  const std::string idle = "Idle/" + std::to_string(idleCount) + "/" +
                           (smoke ? std::string("0.2") : std::string("10")) + "s/";
  benchmark::RegisterBenchmark((idle + "pendrel").c_str(), IdlePendrel, idleCount, idleSeconds)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kSecond);
  benchmark::RegisterBenchmark((idle + "poll.blocking").c_str(), IdlePoll, idleCount, idleSeconds,
                               false)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kSecond);
  benchmark::RegisterBenchmark((idle + "poll.sleep10ms").c_str(), IdlePoll, idleCount, idleSeconds,
                               true)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kSecond);
}

}  // namespace
}  // namespace PendrelBench

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--child") == 0) return PendrelBench::RunChild(argc, argv);
  return PendrelBench::RunBenchmarks(argc, argv, PendrelBench::RegisterAll);
}
