// Error writes to the process's standard output, which a test cannot capture in its own
// process without changing what it checks. The tests run this program again in child mode
// with its standard output sent to a file, and read the file.
#pragma once

#include <string>

namespace pendrel_test {

// The argument that makes main run RunErrorOutputChild instead of the tests.
inline constexpr char kErrorOutputChildArgument[] = "--error-output-child";

// Runs this program in child mode with `scene` and returns what it wrote to its standard
// output (as the system writes a text stream: CR LF line ends on Windows). Fails the current
// test, and returns what there is, when the child does not end with 0.
std::string ErrorOutputOfChild(const std::string& scene);

// Child mode: `argv` holds the scene and the output file. Reopens stdout on the file, plays
// the scene and returns 0; 64 for an unknown scene, 65 when the file cannot be opened.
//   narrow       Error twice, then printf and std::cout.
//   utf8         Error with characters beyond ASCII, then printf.
//   byte         printf, Error, printf.
//   wide         stdout made wide-oriented, Error, then fwprintf.
//   orientation  Error, then printf of what fwide says of stdout.
int RunErrorOutputChild(int argc, char** argv);

}  // namespace pendrel_test
