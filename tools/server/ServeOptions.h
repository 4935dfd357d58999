// The settings of `pendrel serve`: its command line and its TOML configuration file.
//
//   pendrel serve [--listen ADDR:PORT]... [--mount PREFIX=PROGRAM]... [--config FILE]
//                 [--pool-min N] [--pool-max N] [--timeout SECONDS] [--max-body BYTES]
//                 [--mode N] [--workers N]
//
// Command-line mounts take the pool, time-out, body and mode options; mounts of the file
// (its [[handler]] tables) set everything per handler. Listen addresses, the body limit and
// the worker count given on the command line replace the file's. A prefix mounted twice is
// an error. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "handler/CHandlerPool.h"

namespace PendrelServer {

// One mounted handler program.
struct CMountSettings {
  std::string Prefix;  // "/textstats": starts with "/", no "/" at its end (but "/" itself)
  CTolvane::CHandlerPoolSettings Pool;
};

struct CServeSettings {
  std::vector<std::string> Listen;  // "ADDR:PORT"; "[v6]:PORT" for IPv6
  std::uint64_t MaxBody = 256ull << 20;
  std::uint32_t Workers = 32;     // threads that run exchanges
  std::uint32_t DrainMs = 30000;  // how long a stop or reload waits for exchanges in flight
  std::vector<CMountSettings> Mounts;
};

// What the command line says, before the configuration file is read.
struct CServeCommandLine {
  std::vector<std::string> Listen;
  std::vector<std::pair<std::string, std::string>> Mounts;  // prefix, program
  std::string ConfigFile;
  std::uint32_t PoolMin = 1;
  std::uint32_t PoolMax = 4;
  std::int32_t TimeoutS = 120;
  std::uint64_t MaxBody = 0;  // 0: not given
  bool MaxBodyGiven = false;
  int Mode = 0;
  std::uint32_t Workers = 0;  // 0: not given
};

// Reads the arguments after "serve". False, with `error` in English, when they are wrong.
bool ParseServeCommandLine(const std::vector<std::string>& arguments, CServeCommandLine& out,
                           std::string& error);

// The settings: the configuration file (when given) read and the command line put over it.
// False, with `error` naming the file, key and reason, when the file cannot be read or holds
// a wrong value; `fileUnreadable` then says whether the file itself could not be opened.
bool LoadServeSettings(const CServeCommandLine& commandLine, CServeSettings& out,
                       std::string& error, bool& fileUnreadable);

// "256MiB", "64KiB", "1GiB", "4096", "10MB": a byte count. False when it is none.
bool ParseByteSize(std::string_view text, std::uint64_t& bytes);

// The usage text printed for a wrong command line.
const char* ServeUsage();

}  // namespace PendrelServer
