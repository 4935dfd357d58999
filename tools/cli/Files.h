// Whole-file reading and writing for the command line, by UTF-8 path, in binary.
#pragma once

#include <string>
#include <string_view>

namespace PendrelCli {

// Reads the file at `path` ("-": standard input) into `data`; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& data);

// Creates or replaces the file `name` in the folder `folder` with `data`; false when it
// cannot be written.
bool WriteWholeFile(const std::string& folder, const std::string& name, std::string_view data);

// Creates `folder` and its parents where missing; false when it does not exist afterwards.
bool MakeFolder(const std::string& folder);

// The last part of `path`, after its last folder separator ("/", and also "\" on Windows).
std::string LastPathPart(const std::string& path);

}  // namespace PendrelCli
