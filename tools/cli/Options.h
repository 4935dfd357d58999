// The command line of pendrel: its commands and options, read into CCliOptions, and the help
// texts, which are written from the same tables that the reader uses so that they cannot
// drift apart.
//
//   pendrel call HANDLER (--command WORD | --request FILE) [request, handler, output options]
//   pendrel info HANDLER [handler, output options]
//   pendrel task HANDLER CODE [handler, output options]
//   pendrel session HANDLER KEY USER (--command WORD | --request FILE) [session, request, ...]
//   pendrel help [COMMAND] | pendrel [COMMAND] --help | pendrel --version
//
// Pure functions of their input; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace PendrelCli {

enum class ECommand { None, Call, Info, Task, Session };

// How a response is printed: its full JSON form, its common JSON form, or its HTTP header
// lines, a blank line and the body.
enum class EOutputForm { Json, Common, Http };

// What --param and --cparam say, as typed; the key is folded when the request is built.
struct CKeyValue {
  std::string Key;
  std::string Value;
};

// Everything the command line asked for. Text is UTF-8 as typed.
struct CCliOptions {
  ECommand Command = ECommand::None;
  bool ShowHelp = false;     // --help, -h or "help [COMMAND]": print the help of Command
  bool ShowVersion = false;  // --version

  // The handler and how it is started and waited for.
  std::string Handler;
  int Mode = 0;
  std::string ExtraArguments;
  int TimeoutS = 120;

  EOutputForm Output = EOutputForm::Json;
  bool Fail = false;       // --fail
  bool Quiet = false;      // --quiet
  bool Verbose = false;    // --verbose
  std::string SaveFolder;  // empty: the files are not written out

  // The request of call and session.
  std::string RequestFile;  // "-" for standard input
  std::optional<std::string> CommandWord;
  std::optional<std::string> Attribute;
  std::vector<CKeyValue> RequestParams;
  std::vector<CKeyValue> CommandParams;
  std::vector<std::string> Files;

  std::string TaskCode;  // task

  // session
  std::string SessionKey;
  std::string User;
  std::string HandleTaskId;
  std::string HandlerCode;
  std::string HandlerTaskCode;
  std::string LogFileName;
  long long TaskTimeoutS = 0;
};

// The outcome of reading a command line: Error is empty on success.
struct CParsedCommandLine {
  CCliOptions Options;
  std::string Error;
};

// Reads the program's arguments (without the program's own name). A wrong command line
// gives an Error text naming the argument; Options.Command then names the command it was
// for (None when the command itself was wrong).
CParsedCommandLine ParseCommandLine(const std::vector<std::string>& arguments);

// The help of `command` (the overview for None), ending in a line feed.
std::string HelpText(ECommand command);

// "call", "info", "task", "session"; "" for None.
const char* CommandName(ECommand command);

}  // namespace PendrelCli
