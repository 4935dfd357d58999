// The request that call and session send, built from the command line's options.
#pragma once

#include <string>

#include "message/CMimeFile.h"
#include "message/CRequest.h"
#include "tools/cli/Options.h"

namespace PendrelCli {

// What building a request came to: ExitCode kExitOk, or the exit code and the error text.
struct CRequestResult {
  int ExitCode = 0;
  std::string Error;
};

// Fills `request`: from the --request document when there is one, then --command and
// --attribute replace, --param and --cparam add or replace (keys folded with UpperKey) and
// every --file is appended. Fails with kExitDataError for a document that is not a JSON
// object and kExitNoInput for a file that cannot be read.
CRequestResult BuildRequest(const CCliOptions& options, Pendrel::CRequest& request);

// Reads the file at the UTF-8 `path` into `file`: FileName is the last part of the path,
// Name that without its last extension, Type found by the extension with
// Pendrel::GetMimeTypeByFileExt. Unlike CMimeFile::LoadFromFile it splits paths at "/" on
// every platform and takes file names without an extension. False when it cannot be read.
bool LoadInputFile(const std::string& path, Pendrel::CMimeFile& file);

}  // namespace PendrelCli
