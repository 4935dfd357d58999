// What pendrel shows of a response: one of its text forms for standard output, a progress
// line, and its files written into a folder.
#pragma once

#include <string>
#include <vector>

#include "message/CResponse.h"
#include "tools/cli/Options.h"

namespace PendrelCli {

// The response in `form`: the full or the common JSON form followed by a line feed, or the
// HTTP header lines, a blank line ("\n\n") and the body exactly as ToHttpRequestData made
// them, with nothing added.
std::string RenderResponse(const Pendrel::CResponse& response, EOutputForm form);

// "progress: phase P/T, phase progress P/T, task P/T, time N\n" while `progress.IsSet`;
// empty otherwise.
std::string ProgressLine(const Pendrel::CProgress& progress);

// The names the files of `response` are saved under, in order: each file's FileName with
// "/", "\", ":", "*", "?", "\"", "<", ">", "|" and control characters replaced by "_";
// "file<N>" (N counting from 1) when that leaves nothing, "." or ".."; prefixed by "<N>-"
// when an earlier file took the name. The same on every platform.
std::vector<std::string> SaveNames(const Pendrel::CResponse& response);

// Writes every file of `response` into `folder` (created if missing) under SaveNames.
// Returns false with `error` at the first file that cannot be written.
bool SaveFiles(const Pendrel::CResponse& response, const std::string& folder, std::string& error);

}  // namespace PendrelCli
