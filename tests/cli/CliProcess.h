// Runs a program of the build (the pendrel command line) as a child process with its
// standard input taken from a text and its standard output and error captured, for the
// command line's tests. One implementation per platform (CliProcess_posix.cpp,
// CliProcess_win.cpp).
#pragma once

#include <string>
#include <vector>

namespace pendrel_test {

struct CProgramRun {
  int ExitCode = -1;  // -1: it could not be started, or was ended after 90 s
  std::string Out;    // standard output, byte for byte
  std::string Err;    // standard error, byte for byte
};

// Runs `program` with `arguments` (UTF-8; on Windows quoted into one command line the way
// the C runtime splits it again) and `input` as its standard input, and waits for it.
CProgramRun RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                       const std::string& input = "");

}  // namespace pendrel_test
