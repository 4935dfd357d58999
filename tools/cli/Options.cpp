#include "tools/cli/Options.h"

#include <cstddef>
#include <string_view>

#include "tools/cli/ExitCodes.h"

namespace PendrelCli {
namespace {

enum class EOption {
  Command,
  Attribute,
  Param,
  CParam,
  File,
  Request,
  TaskId,
  HandlerCode,
  TaskCode,
  LogFile,
  TaskTimeout,
  Mode,
  Args,
  Timeout,
  Output,
  Save,
  Fail,
  Quiet,
  Verbose,
  Help,
};

// The headings under which a command's help lists its options, in this order.
enum class EGroup { Request, Session, Handler, Output };

constexpr unsigned Bit(ECommand command) { return 1u << static_cast<unsigned>(command); }
constexpr unsigned kRequesting = Bit(ECommand::Call) | Bit(ECommand::Session);
constexpr unsigned kEvery = kRequesting | Bit(ECommand::Info) | Bit(ECommand::Task);

struct COptionRow {
  EOption Id;
  const char* Name;
  const char* Value;  // what the value is called in the help; nullptr for a flag
  unsigned Commands;  // Bit() of every command that takes it
  EGroup Group;
  const char* Help;
};

constexpr COptionRow kOptions[] = {
    {EOption::Command, "--command", "WORD", kRequesting, EGroup::Request,
     "the command word (Command), e.g. STATS"},
    {EOption::Attribute, "--attribute", "TEXT", kRequesting, EGroup::Request,
     "the command's attribute (CommandAtribute)"},
    {EOption::Param, "--param", "KEY=VALUE", kRequesting, EGroup::Request,
     "a request parameter (RequestParams); the key is stored in upper case; repeatable"},
    {EOption::CParam, "--cparam", "KEY=VALUE", kRequesting, EGroup::Request,
     "a command parameter (CommandParams); the key is stored in upper case; repeatable"},
    {EOption::File, "--file", "PATH", kRequesting, EGroup::Request,
     "an input file (InputData), typed by its extension (.csv, .json, .txt, ...; others are "
     "binary); repeatable; not - (a file needs a name: save standard input first)"},
    {EOption::Request, "--request", "FILE", kRequesting, EGroup::Request,
     "start from the request JSON document in FILE (- reads standard input); the options "
     "above then change it: --command and --attribute replace, --param and --cparam add or "
     "replace, --file adds"},
    {EOption::TaskId, "--task-id", "ID", Bit(ECommand::Session), EGroup::Session,
     "HandleTaskID of the session (default empty)"},
    {EOption::HandlerCode, "--handler-code", "CODE", Bit(ECommand::Session), EGroup::Session,
     "HandlerCode of the session (default empty)"},
    {EOption::TaskCode, "--task-code", "CODE", Bit(ECommand::Session), EGroup::Session,
     "HandlerTaskCode of the session (default empty)"},
    {EOption::LogFile, "--log-file", "NAME", Bit(ECommand::Session), EGroup::Session,
     "LogFileName of the session (default empty)"},
    {EOption::TaskTimeout, "--task-timeout", "S", Bit(ECommand::Session), EGroup::Session,
     "TaskTimeoutS of the session, 0 to 4294967295 seconds (default 0)"},
    {EOption::Mode, "--mode", "N", kEvery, EGroup::Handler,
     "the mode the handler is started with (_DM_=N, default 0); modes 1 to 3 also log failed "
     "exchanges into HarnockLogs beside the pendrel program"},
    {EOption::Args, "--args", "TEXT", kEvery, EGroup::Handler,
     "extra arguments for the handler, passed as they stand after _EX_=2"},
    {EOption::Timeout, "--timeout", "S", kEvery, EGroup::Handler,
     "seconds to wait for each answer, 1 to 2147483 (default 120)"},
    {EOption::Output, "--output", "FORM", kEvery, EGroup::Output,
     "json: the response's full JSON form (default); common: its common JSON form, without "
     "files; http: its HTTP header lines, a blank line and the body, byte for byte"},
    {EOption::Save, "--save", "DIR", kRequesting, EGroup::Output,
     "also write the response's files into DIR, created if missing, each under its file name"},
    {EOption::Fail, "--fail", nullptr, kRequesting, EGroup::Output,
     "exit with status 1 when the response has the error status 3 (it is still printed)"},
    {EOption::Quiet, "--quiet", nullptr, kEvery, EGroup::Output,
     "print no progress line and no notes on standard error, only errors (also -q)"},
    {EOption::Verbose, "--verbose", nullptr, kEvery, EGroup::Output,
     "also print on standard error each message exchanged (its size and first 1 KiB) and the "
     "library's own error texts (also -v)"},
    {EOption::Help, "--help", nullptr, kEvery, EGroup::Output, "print this help (also -h)"},
};

struct CGroupRow {
  EGroup Id;
  const char* Heading;
};

constexpr CGroupRow kGroups[] = {
    {EGroup::Request, "Request options"},
    {EGroup::Session, "Session options"},
    {EGroup::Handler, "Handler options"},
    {EGroup::Output, "Output options"},
};

struct CCommandRow {
  ECommand Id;
  const char* Name;
  int OperandCount;             // HANDLER and what follows it
  const char* OperandNames[3];  // as the usage line names them
  const char* Usage;
  const char* Summary;
  const char* Description;
};

constexpr CCommandRow kCommands[] = {
    {ECommand::Call,
     "call",
     1,
     {"HANDLER"},
     "pendrel call HANDLER (--command WORD | --request FILE) [OPTIONS]",
     "send one request and print the response",
     "Starts the handler program HANDLER, sends it one request and prints its response on "
     "standard output in the form --output chooses. When the response reports progress, a "
     "progress line goes to standard error first."},
    {ECommand::Info,
     "info",
     1,
     {"HANDLER"},
     "pendrel info HANDLER [OPTIONS]",
     "print the handler's description and versions",
     "Starts HANDLER and asks it to describe itself (RequestHandlerInfo), for the version of "
     "the record interface it was built with (RequestLibVersion) and for its input file size "
     "(RequestInputFileSize). Prints the answers as a response (status 0) whose Parameters "
     "hold Name, Description, Version, LibVersion and InputFileSize."},
    {ECommand::Task,
     "task",
     2,
     {"HANDLER", "CODE"},
     "pendrel task HANDLER CODE [OPTIONS]",
     "print the description of one of the handler's tasks",
     "Starts HANDLER and asks it to describe its task CODE (RequestHandlerTaskInfo). Prints "
     "the answer as a response (status 0) whose Parameters hold TaskCode, Name and "
     "Description; Name and Description are empty, and a warning goes to standard error, when "
     "the handler describes no such task."},
    {ECommand::Session,
     "session",
     3,
     {"HANDLER", "KEY", "USER"},
     "pendrel session HANDLER KEY USER (--command WORD | --request FILE) [OPTIONS]",
     "open a session, send one request in it, close it",
     "Starts HANDLER, opens a session with the key KEY for the user USER (OnCreateSession), "
     "sends one request in it, closes the session (OnCloseSession) and prints the request's "
     "response as call does. The answer to the opening goes to standard error as one line, "
     "\"session opened: \" and its common JSON form."},
};

constexpr const char* kHandlerOperand =
    "HANDLER is the handler program; a name without a folder is looked for the way the system "
    "finds programs (PATH).";

constexpr std::size_t kWidth = 80;  // a terminal's width
constexpr std::size_t kOptionColumn = 24;

const CCommandRow* FindCommand(std::string_view name) {
  for (const CCommandRow& row : kCommands) {
    if (name == row.Name) return &row;
  }
  return nullptr;
}

const CCommandRow& CommandRow(ECommand command) {
  for (const CCommandRow& row : kCommands) {
    if (row.Id == command) return row;
  }
  return kCommands[0];
}

const COptionRow* FindOption(std::string_view name) {
  if (name == "-h") name = "--help";
  if (name == "-q") name = "--quiet";
  if (name == "-v") name = "--verbose";
  for (const COptionRow& row : kOptions) {
    if (name == row.Name) return &row;
  }
  return nullptr;
}

// Appends `text` wrapped at kWidth; every line but the first starts with `indent` blanks,
// and the first continues a line that is `column` wide already.
void AppendWrapped(std::string& out, std::string_view text, std::size_t column,
                   std::size_t indent) {
  while (!text.empty()) {
    const std::size_t room = kWidth - column;
    std::size_t cut = text.size();
    if (cut > room) {
      cut = text.rfind(' ', room);
      if (cut == std::string_view::npos || cut == 0) cut = text.find(' ');
      if (cut == std::string_view::npos) cut = text.size();
    }
    out.append(text.substr(0, cut));
    out += '\n';
    text.remove_prefix(cut);
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    if (!text.empty()) out.append(indent, ' ');
    column = indent;
  }
}

// The table of exit statuses, from the table the program itself returns by.
void AppendExitStatuses(std::string& out) {
  out += "Exit status:\n";
  for (const CExitStatusRow& row : kExitStatuses) {
    std::string head = std::string("  ") + row.Status;
    head.append(8 - head.size(), ' ');
    out += head;
    AppendWrapped(out, row.Meaning, head.size(), head.size());
  }
}

void AppendOption(std::string& out, const COptionRow& option) {
  std::string head = std::string("  ") + option.Name;
  if (option.Value) head += std::string(" ") + option.Value;
  out += head;
  if (head.size() + 2 > kOptionColumn) {
    out += '\n';
    out.append(kOptionColumn, ' ');
  } else {
    out.append(kOptionColumn - head.size(), ' ');
  }
  AppendWrapped(out, option.Help, kOptionColumn, kOptionColumn);
}

std::string OverviewText() {
  std::string out =
      "Usage: pendrel COMMAND HANDLER [OPERANDS] [OPTIONS]\n"
      "       pendrel help [COMMAND] | pendrel [COMMAND] --help | pendrel --version\n\n";
  AppendWrapped(out,
                "Drives a handler program from the shell as a host does: starts it, serves the "
                "pipe it connects to, exchanges messages with it, prints what it answers and "
                "lets it go.",
                0, 0);
  out += "\nCommands:\n";
  for (const CCommandRow& row : kCommands) {
    std::string head = std::string("  ") + row.Usage;
    head.erase(head.find(" [OPTIONS]"));
    head.erase(2, 8);  // "pendrel "
    const std::size_t cut = head.find(" (");
    if (cut != std::string::npos) head.erase(cut);
    out += head;
    if (head.size() + 2 > kOptionColumn) {
      out += '\n';
      out.append(kOptionColumn, ' ');
    } else {
      out.append(kOptionColumn - head.size(), ' ');
    }
    out += row.Summary;
    out += '\n';
  }
  out += '\n';
  AppendWrapped(out, kHandlerOperand, 0, 0);
  AppendWrapped(out, "Run 'pendrel COMMAND --help' for a command's operands and options.", 0, 0);
  out += '\n';
  AppendExitStatuses(out);
  return out;
}

std::string CommandHelpText(const CCommandRow& row) {
  std::string out = std::string("Usage: ") + row.Usage + "\n\n";
  AppendWrapped(out, row.Description, 0, 0);
  out += '\n';
  AppendWrapped(out, kHandlerOperand, 0, 0);
  for (const CGroupRow& group : kGroups) {
    bool headed = false;
    for (const COptionRow& option : kOptions) {
      if (option.Group != group.Id || !(option.Commands & Bit(row.Id))) continue;
      if (!headed) out += std::string("\n") + group.Heading + ":\n";
      headed = true;
      AppendOption(out, option);
    }
  }
  out += '\n';
  AppendExitStatuses(out);
  return out;
}

// Reads a decimal whole number (an optional "-" and digits) between `low` and `high`.
bool ReadNumber(const std::string& text, long long low, long long high, long long& number) {
  std::size_t at = 0;
  const bool negative = !text.empty() && text[0] == '-';
  if (negative) at = 1;
  if (at == text.size() || text.size() - at > 12) return false;
  long long value = 0;
  for (; at < text.size(); ++at) {
    if (text[at] < '0' || text[at] > '9') return false;
    value = value * 10 + (text[at] - '0');
  }
  if (negative) value = -value;
  if (value < low || value > high) return false;
  number = value;
  return true;
}

std::string NumberError(const COptionRow& option, const std::string& value, long long low,
                        long long high) {
  return std::string(option.Name) + " takes a whole number from " + std::to_string(low) + " to " +
         std::to_string(high) + ", not \"" + value + "\"";
}

std::string ReadKeyValue(const COptionRow& option, const std::string& value,
                         std::vector<CKeyValue>& into) {
  const std::size_t equals = value.find('=');
  if (equals == std::string::npos || equals == 0) {
    return std::string(option.Name) + " takes KEY=VALUE, not \"" + value + "\"";
  }
  into.push_back({value.substr(0, equals), value.substr(equals + 1)});
  return "";
}

// Applies one option with its value; returns an error text, empty when it was fine.
std::string Apply(const COptionRow& option, const std::string& value, CCliOptions& options) {
  long long number = 0;
  switch (option.Id) {
    case EOption::Command:
      options.CommandWord = value;
      break;
    case EOption::Attribute:
      options.Attribute = value;
      break;
    case EOption::Param:
      return ReadKeyValue(option, value, options.RequestParams);
    case EOption::CParam:
      return ReadKeyValue(option, value, options.CommandParams);
    case EOption::File:
      if (value == "-") {
        return "--file takes a file, not - (standard input has no file name: save it to a file "
               "first, or give a whole request with --request -)";
      }
      if (value.empty()) return "--file takes a file name";
      options.Files.push_back(value);
      break;
    case EOption::Request:
      if (value.empty()) return "--request takes a file name";
      options.RequestFile = value;
      break;
    case EOption::TaskId:
      options.HandleTaskId = value;
      break;
    case EOption::HandlerCode:
      options.HandlerCode = value;
      break;
    case EOption::TaskCode:
      options.HandlerTaskCode = value;
      break;
    case EOption::LogFile:
      options.LogFileName = value;
      break;
    case EOption::TaskTimeout:
      if (!ReadNumber(value, 0, 4294967295LL, number)) {
        return NumberError(option, value, 0, 4294967295LL);
      }
      options.TaskTimeoutS = number;
      break;
    case EOption::Mode:
      if (!ReadNumber(value, -2147483647LL - 1, 2147483647LL, number)) {
        return NumberError(option, value, -2147483647LL - 1, 2147483647LL);
      }
      options.Mode = static_cast<int>(number);
      break;
    case EOption::Args:
      options.ExtraArguments = value;
      break;
    case EOption::Timeout:
      // The handler client forms the time limit in milliseconds in 32 bits.
      if (!ReadNumber(value, 1, 2147483, number)) return NumberError(option, value, 1, 2147483);
      options.TimeoutS = static_cast<int>(number);
      break;
    case EOption::Output:
      if (value == "json") {
        options.Output = EOutputForm::Json;
      } else if (value == "common") {
        options.Output = EOutputForm::Common;
      } else if (value == "http") {
        options.Output = EOutputForm::Http;
      } else {
        return "--output takes json, common or http, not \"" + value + "\"";
      }
      break;
    case EOption::Save:
      if (value.empty()) return "--save takes a folder";
      options.SaveFolder = value;
      break;
    case EOption::Fail:
      options.Fail = true;
      break;
    case EOption::Quiet:
      options.Quiet = true;
      break;
    case EOption::Verbose:
      options.Verbose = true;
      break;
    case EOption::Help:
      options.ShowHelp = true;
      break;
  }
  return "";
}

// The operands of `command`, in order, into their fields.
void AssignOperands(const std::vector<std::string>& operands, CCliOptions& options) {
  options.Handler = operands[0];
  if (options.Command == ECommand::Task) options.TaskCode = operands[1];
  if (options.Command == ECommand::Session) {
    options.SessionKey = operands[1];
    options.User = operands[2];
  }
}

std::string CheckOperands(const CCommandRow& row, const std::vector<std::string>& operands) {
  const std::size_t expected = static_cast<std::size_t>(row.OperandCount);
  if (operands.size() < expected) {
    return std::string("missing ") + row.OperandNames[operands.size()] + " (usage: " + row.Usage +
           ")";
  }
  if (operands.size() > expected) return "unexpected argument \"" + operands[expected] + "\"";
  return "";
}

// Reads the arguments after the command word.
void ParseCommandArguments(const CCommandRow& command, const std::vector<std::string>& arguments,
                           CParsedCommandLine& result) {
  CCliOptions& options = result.Options;
  // --help wins over everything else on the line, so that it works on a line being written.
  for (std::size_t i = 1; i < arguments.size() && arguments[i] != "--"; ++i) {
    if (arguments[i] == "--help" || arguments[i] == "-h") {
      options.ShowHelp = true;
      return;
    }
  }
  std::vector<std::string> operands;
  bool optionsEnded = false;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
      operands.push_back(argument);
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = argument;
    std::string value;
    const std::size_t equals = argument.find('=');
    const bool inlineValue = argument.rfind("--", 0) == 0 && equals != std::string::npos;
    if (inlineValue) {
      name = argument.substr(0, equals);
      value = argument.substr(equals + 1);
    }
    const COptionRow* option = FindOption(name);
    if (!option) {
      result.Error = "unknown option " + name;
      return;
    }
    if (!(option->Commands & Bit(command.Id))) {
      result.Error = name + " is not an option of 'pendrel " + command.Name + "'";
      return;
    }
    if (option->Value && !inlineValue) {
      if (i + 1 >= arguments.size()) {
        result.Error = name + " needs a value (" + option->Value + ")";
        return;
      }
      value = arguments[++i];
    } else if (!option->Value && inlineValue) {
      result.Error = name + " takes no value";
      return;
    }
    result.Error = Apply(*option, value, options);
    if (!result.Error.empty()) return;
  }
  result.Error = CheckOperands(command, operands);
  if (!result.Error.empty()) return;
  AssignOperands(operands, options);
  if ((Bit(command.Id) & kRequesting) && !options.CommandWord && options.RequestFile.empty()) {
    result.Error = "no request: give --command WORD or --request FILE";
  }
}

}  // namespace

CParsedCommandLine ParseCommandLine(const std::vector<std::string>& arguments) {
  CParsedCommandLine result;
  CCliOptions& options = result.Options;
  if (arguments.empty()) {
    result.Error = "no command given";
    return result;
  }
  const std::string& first = arguments[0];
  if (first == "--help" || first == "-h") {
    options.ShowHelp = true;
  } else if (first == "--version") {
    options.ShowVersion = true;
  } else if (first == "help") {
    options.ShowHelp = true;
    if (arguments.size() > 2) {
      result.Error = "help takes at most one command";
    } else if (arguments.size() == 2) {
      if (const CCommandRow* row = FindCommand(arguments[1])) {
        options.Command = row->Id;
      } else {
        result.Error = "unknown command \"" + arguments[1] + "\"";
      }
    }
  } else if (const CCommandRow* row = FindCommand(first)) {
    options.Command = row->Id;
    ParseCommandArguments(*row, arguments, result);
  } else {
    result.Error = "unknown command \"" + first + "\"";
  }
  return result;
}

std::string HelpText(ECommand command) {
  if (command == ECommand::None) return OverviewText();
  return CommandHelpText(CommandRow(command));
}

const char* CommandName(ECommand command) {
  return command == ECommand::None ? "" : CommandRow(command).Name;
}

}  // namespace PendrelCli
