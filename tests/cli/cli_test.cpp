// The pendrel command line, run as a program against the example handler and the test
// handler: what it prints, byte for byte, what it sends, and its exit codes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>  // std::strlen
#include <filesystem>
#include <fstream>
#include <iterator>  // std::istreambuf_iterator
#include <string>
#include <vector>

#include "tests/cli/CliProcess.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/support/TempDir.h"

namespace pendrel_test {
namespace {

using Arguments = std::vector<std::string>;

const std::string& Cli() {
  static const std::string path = NativePath(PENDREL_CLI_PATH);
  return path;
}

const std::string& TextStats() {
  static const std::string path = NativePath(PENDREL_TEXT_STATS_PATH);
  return path;
}

const std::string& TestHandler() {
  static const std::string path = NativePath(PENDREL_TEST_HANDLER_PATH);
  return path;
}

const std::string& Sample() {
  static const std::string path = NativePath(PENDREL_SOURCE_DIR "/examples/data/sample.csv");
  return path;
}

CProgramRun Pendrel(const Arguments& arguments, const std::string& input = "") {
  return RunProgram(Cli(), arguments, input);
}

std::string Utf8Path(const std::filesystem::path& path) { return path.u8string(); }

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What the example handler answers about examples/data/sample.csv.
constexpr char kSampleStats[] =
    R"({"status":0,"Parameters":{"BYTES":"169","FILES":"1","LINES":"5","WORDS":"9",)"
    R"("sample.csv":"5 lines, 9 words, 169 bytes"},"phase":{"pos":1,"total":1},)"
    R"("phaseProgress":{"pos":169,"total":169},"taskProgress":{"pos":169,"total":169,"time":0}})"
    "\n";
constexpr char kSampleProgress[] =
    "progress: phase 1/1, phase progress 169/169, task 169/169, time 0\n";
constexpr char kSampleJson[] =
    "[\n"
    R"(  {"city": "Oslo", "country": "Norway", "population": "709037", "note": "capital"},)"
    "\n"
    R"(  {"city": "Bergen", "country": "Norway", "population": "291940", "note": "rain, mostly"},)"
    "\n"
    R"(  {"city": "Reykjavík", "country": "Iceland", "population": "139875", )"
    R"("note": "the \"smoky bay\""},)"
    "\n"
    R"(  {"city": "Tórshavn", "country": "Faroe Islands", "population": "14770", "note": ""})"
    "\n]\n";
constexpr char kStatsCsv[] = "file,lines,words,bytes\nsample.csv,5,9,169\n";
constexpr char kStatsJson[] =
    "[\n  {\"file\": \"sample.csv\", \"lines\": 5, \"words\": 9, \"bytes\": 169}\n]\n";

// ---------------------------------------------------------------------------------------
// Help and the command line.

TEST(CliHelp, OverviewNamesEveryCommandWhicheverWayAsked) {
  const CProgramRun run = Pendrel({"--help"});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Err, "");
  for (const char* usage : {"call HANDLER", "info HANDLER", "task HANDLER CODE",
                            "session HANDLER KEY USER", "help [COMMAND]"}) {
    EXPECT_NE(run.Out.find(usage), std::string::npos) << usage;
  }
  EXPECT_EQ(Pendrel({"help"}).Out, run.Out);
  EXPECT_EQ(Pendrel({"-h"}).Out, run.Out);
}

struct CCommandHelpCase {
  const char* Command;
  std::vector<const char*> Listed;
  std::vector<const char*> NotListed;
};

TEST(CliHelp, EachCommandListsExactlyItsOptions) {
  const std::vector<const char*> handlerOptions = {
      "--mode N", "--args TEXT", "--timeout S", "--output FORM", "--quiet", "--verbose", "--help"};
  const std::vector<const char*> requestOptions = {
      "--command WORD", "--attribute TEXT", "--param KEY=VALUE", "--cparam KEY=VALUE",
      "--file PATH",    "--request FILE",   "--save DIR",        "--fail"};
  const std::vector<const char*> sessionOptions = {"--task-id ID", "--handler-code CODE",
                                                   "--task-code CODE", "--log-file NAME",
                                                   "--task-timeout S"};
  const auto join = [](std::vector<const char*> a, const std::vector<const char*>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const CCommandHelpCase cases[] = {
      {"call", join(handlerOptions, requestOptions), sessionOptions},
      {"info", handlerOptions, join(requestOptions, sessionOptions)},
      {"task", handlerOptions, join(requestOptions, sessionOptions)},
      {"session", join(join(handlerOptions, requestOptions), sessionOptions), {}},
  };
  for (const CCommandHelpCase& test : cases) {
    const CProgramRun run = Pendrel({test.Command, "--help"});
    EXPECT_EQ(run.ExitCode, 0) << test.Command;
    EXPECT_EQ(run.Out.rfind(std::string("Usage: pendrel ") + test.Command + " HANDLER", 0), 0u)
        << run.Out;
    for (const char* option : test.Listed) {
      EXPECT_NE(run.Out.find(std::string("  ") + option), std::string::npos)
          << test.Command << " " << option;
    }
    for (const char* option : test.NotListed) {
      EXPECT_EQ(run.Out.find(std::string("  ") + option), std::string::npos)
          << test.Command << " " << option;
    }
    EXPECT_EQ(Pendrel({"help", test.Command}).Out, run.Out) << test.Command;
    // --help wins over whatever else the line holds.
    EXPECT_EQ(Pendrel({test.Command, "--bogus", "-h"}).Out, run.Out) << test.Command;
  }
}

TEST(CliHelp, EveryHelpTabulatesTheExitStatuses) {
  for (const char* command : {"call", "info", "task", "session"}) {
    const std::string help = Pendrel({command, "--help"}).Out;
    for (const char* status : {"0", "1", "64", "65", "66", "69", "70", "73", "74", "75"}) {
      EXPECT_NE(
          help.find(std::string("\n  ") + status + std::string(8 - 2 - std::strlen(status), ' ')),
          std::string::npos)
          << command << " " << status << "\n"
          << help;
    }
    EXPECT_NE(help.find("\n  128+N pendrel was stopped by signal N"), std::string::npos) << help;
  }
  EXPECT_NE(Pendrel({"--help"}).Out.find("\nExit status:\n  0     the handler answered"),
            std::string::npos);
}

TEST(CliHelp, VersionNamesTheRecordInterface) {
  const CProgramRun run = Pendrel({"--version"});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Out.rfind("pendrel ", 0), 0u);
  EXPECT_NE(run.Out.find(" (record interface 4)\n"), std::string::npos) << run.Out;
}

struct CBadLineCase {
  Arguments Line;
  std::string Err;
};

TEST(CliArguments, WrongLinesExit64NamingTheProblem) {
  const char* const callUsage = "pendrel call HANDLER (--command WORD | --request FILE) [OPTIONS]";
  const CBadLineCase cases[] = {
      {{}, "pendrel: no command given\nTry 'pendrel --help'.\n"},
      {{"frobnicate"}, "pendrel: unknown command \"frobnicate\"\nTry 'pendrel --help'.\n"},
      {{"help", "frobnicate"}, "pendrel: unknown command \"frobnicate\"\nTry 'pendrel --help'.\n"},
      {{"call"},
       std::string("pendrel call: missing HANDLER (usage: ") + callUsage +
           ")\nTry 'pendrel call --help'.\n"},
      {{"call", "h"},
       "pendrel call: no request: give --command WORD or --request FILE\n"
       "Try 'pendrel call --help'.\n"},
      {{"call", "h", "--command"},
       "pendrel call: --command needs a value (WORD)\nTry 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--param", "novalue"},
       "pendrel call: --param takes KEY=VALUE, not \"novalue\"\nTry 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--cparam=", "=v"},
       "pendrel call: --cparam takes KEY=VALUE, not \"\"\nTry 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--output", "xml"},
       "pendrel call: --output takes json, common or http, not \"xml\"\n"
       "Try 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--mode", "abc"},
       "pendrel call: --mode takes a whole number from -2147483648 to 2147483647, not \"abc\"\n"
       "Try 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--timeout=0"},
       "pendrel call: --timeout takes a whole number from 1 to 2147483, not \"0\"\n"
       "Try 'pendrel call --help'.\n"},
      {{"call", "h", "extra", "--command", "X"},
       "pendrel call: unexpected argument \"extra\"\nTry 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--bogus"},
       "pendrel call: unknown option --bogus\nTry 'pendrel call --help'.\n"},
      {{"call", "h", "--command", "X", "--help=yes"},
       "pendrel call: --help takes no value\nTry 'pendrel call --help'.\n"},
      {{"info", "h", "--save", "d"},
       "pendrel info: --save is not an option of 'pendrel info'\nTry 'pendrel info --help'.\n"},
      {{"task", "h"},
       "pendrel task: missing CODE (usage: pendrel task HANDLER CODE [OPTIONS])\n"
       "Try 'pendrel task --help'.\n"},
      {{"session", "h", "k", "--command", "X"},
       "pendrel session: missing USER (usage: pendrel session HANDLER KEY USER (--command WORD "
       "| --request FILE) [OPTIONS])\nTry 'pendrel session --help'.\n"},
      {{"session", "h", "k", "u", "--command", "X", "--task-timeout", "-1"},
       "pendrel session: --task-timeout takes a whole number from 0 to 4294967295, not \"-1\"\n"
       "Try 'pendrel session --help'.\n"},
  };
  for (const CBadLineCase& test : cases) {
    std::string line;
    for (const std::string& argument : test.Line) line += " " + argument;
    const CProgramRun run = Pendrel(test.Line);
    EXPECT_EQ(run.ExitCode, 64) << line;
    EXPECT_EQ(run.Out, "") << line;
    EXPECT_EQ(run.Err, test.Err) << line;
  }
}

// ---------------------------------------------------------------------------------------
// call, against the test handler, which answers a request with its own fields.

TEST(CliCall, PrintsTheFullJsonFormWithKeysUpperCased) {
  const CProgramRun run =
      Pendrel({"call", TestHandler(), "--command", "PING", "--attribute", "doc", "--param",
               "lang=en", "--param", "note=a=b c", "--cparam", "page=2"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Parameters":{"Command":"PING","CommandAtribute":"doc",)"
                     R"("CommandParam.PAGE":"2","LANG":"en","NOTE":"a=b c"}})"
                     "\n");
  EXPECT_EQ(run.Err, "");
}

TEST(CliCall, PrintsTheCommonForm) {
  const CProgramRun run = Pendrel(
      {"call", TestHandler(), "--command", "PING", "--param", "lang=en", "--output", "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Command":"PING","CommandAtribute":"","LANG":"en"})"
                     "\n");
}

TEST(CliCall, PrintsTheHttpFormAsItStands) {
  const CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--output=http"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            "Content-Type: application/json; charset=utf-8\nContent-Disposition: inline\n\n"
            R"({"status":3,"Command":"PING","CommandAtribute":""})");
}

TEST(CliCall, CarriesTextBeyondAsciiFromTheCommandLine) {
  const CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--param",
                                   "city=Tórshavn", "--attribute", "Ölfus €"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Parameters":{"CITY":"Tórshavn","Command":"PING",)"
                     R"("CommandAtribute":"Ölfus €"}})"
                     "\n");
}

TEST(CliCall, SendsExactlyTheRequestDocument) {
  TempDir dir;
  const std::string record = Utf8Path(dir.path() / "record");
  const std::string input = Utf8Path(dir.Write("in/notes.txt", "hi\n"));
  const CProgramRun run =
      Pendrel({"call", TestHandler(), "--args", "--record " + record, "--command", "SIMPLEX",
               "--attribute", "plan", "--cparam", "page=2", "--param", "lang=en", "--file", input});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  const std::vector<std::string> messages =
      WaitForRecordedMessages(record, 1, std::chrono::seconds(10));
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0],
            R"({"Command":"SIMPLEX","CommandAtribute":"plan","CommandParams":{"PAGE":"2"},)"
            R"("RequestParams":{"LANG":"en"},"InputData":[{"Name":"notes","FileName":"notes.txt",)"
            R"("Type":"text\/plain","Data":"hi\n"}]})");
}

TEST(CliCall, ReadsTheRequestFromAFileAndAppliesTheOptionsOnTop) {
  TempDir dir;
  const std::string request = Utf8Path(
      dir.Write("request.json",
                R"({"Command":"SIMPLEX","CommandAtribute":"plan","CommandParams":{"page":"3"},)"
                R"("RequestParams":{"lang":"en"},"InputData":[]})"));
  const CProgramRun run = Pendrel(
      {"call", TestHandler(), "--request", request, "--param", "timeout=30", "--output", "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  // The document's request keys are folded by the record's reader, its command keys not.
  EXPECT_EQ(run.Out,
            R"({"status":3,"Command":"SIMPLEX","CommandAtribute":"plan","CommandParam.page":"3",)"
            R"("LANG":"en","TIMEOUT":"30"})"
            "\n");
}

TEST(CliCall, ReadsTheRequestFromStandardInput) {
  const CProgramRun run =
      Pendrel({"call", TestHandler(), "--request", "-", "--command", "PING", "--output", "common"},
              R"({"Command":"JOB","CommandAtribute":"a","CommandParams":{},"RequestParams":{},)"
              R"("InputData":[]})");
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Command":"PING","CommandAtribute":"a"})"
                     "\n");
}

struct CBadDocumentCase {
  const char* Name;
  std::string Document;
  std::string Error;  // after "pendrel: the request document \"-\" is not valid: "
};

TEST(CliCall, RefusesARequestDocumentThatIsNotStrictlyAJsonObjectWithWhere) {
  const CBadDocumentCase cases[] = {
      {"not JSON", "PING",
       "line 1, column 1: syntax error while parsing value - invalid literal; last read: 'P'"},
      {"truncated", "{\"Command\":\"STATS\",",
       "line 1, column 20: syntax error while parsing object key - unexpected end of input; "
       "expected string literal"},
      {"trailing text", "{\"Command\":\"STATS\"}\n x",
       "line 2, column 2: syntax error while parsing value - invalid literal; last read: "
       "'\"STATS\"}<U+000A> x'; expected end of input"},
      {"byte order mark", "\xEF\xBB\xBF{\"Command\":\"STATS\"}",
       "line 1, column 1: the document starts with a byte order mark (BOM)"},
      {"invalid UTF-8", "{\"Command\":\"ST\xFF\"}",
       "line 1, column 15: syntax error while parsing value - invalid string: ill-formed UTF-8 "
       "byte; last read: '\"ST\xFF'"},
      {"an array", " [1]",
       "line 1, column 2: the document is not a JSON object (a request is {…})"},
  };
  for (const CBadDocumentCase& test : cases) {
    const CProgramRun run = Pendrel({"call", TestHandler(), "--request", "-"}, test.Document);
    EXPECT_EQ(run.ExitCode, 65) << test.Name;
    EXPECT_EQ(run.Out, "") << test.Name;
    EXPECT_EQ(run.Err, "pendrel: the request document \"-\" is not valid: " + test.Error + "\n")
        << test.Name;
  }
}

TEST(CliCall, RefusesAnInputFileItCannotReadSayingWhy) {
  TempDir dir;
  const std::string missing = Utf8Path(dir.path() / "missing.txt");
  CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--file", missing});
  EXPECT_EQ(run.ExitCode, 66);
  EXPECT_EQ(run.Err, "pendrel: cannot read the file \"" + missing + "\": there is no such file\n");
  const std::string folder = Utf8Path(dir.path());
  run = Pendrel({"call", TestHandler(), "--request", folder});
  EXPECT_EQ(run.ExitCode, 66);
  EXPECT_EQ(run.Err,
            "pendrel: cannot read the request document \"" + folder + "\": it is a folder\n");
}

TEST(CliCall, RefusesStandardInputAsAFile) {
  const CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--file", "-"});
  EXPECT_EQ(run.ExitCode, 64);
  EXPECT_EQ(run.Err.rfind("pendrel call: --file takes a file, not - (standard input", 0), 0u)
      << run.Err;
}

TEST(CliCall, SavesTheResponseFilesUnderSafeDistinctNames) {
  TempDir dir;
  const std::string first = Utf8Path(dir.Write("a/same.txt", "one"));
  const std::string second = Utf8Path(dir.Write("b/same.txt", "two"));
  const std::string plain = Utf8Path(dir.Write("b/README", "three"));
  const std::string out = Utf8Path(dir.path() / "out" / "deeper");
  // The test handler answers with the request's files.
  const CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--file", first,
                                   "--file", second, "--file", plain, "--save", out});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            R"({"Data":[{"Type":3,"FileName":"same.txt","Title":"same","Data":"one",)"
            R"("IsAttachment":true},{"Type":3,"FileName":"same.txt","Title":"same","Data":"two",)"
            R"("IsAttachment":true},{"Type":1,"FileName":"README","Title":"README",)"
            R"("Data":"three","IsAttachment":true}],"status":1,"Parameters":{}})"
            "\n");
  EXPECT_EQ(run.Err, "saved: " + out + "/same.txt (3 bytes)\nsaved: " + out +
                         "/2-same.txt (3 bytes)\nsaved: " + out + "/README (5 bytes)\n");
  EXPECT_EQ(ReadFile(dir.path() / "out" / "deeper" / "same.txt"), "one");
  EXPECT_EQ(ReadFile(dir.path() / "out" / "deeper" / "2-same.txt"), "two");
  EXPECT_EQ(ReadFile(dir.path() / "out" / "deeper" / "README"), "three");
}

TEST(CliCall, ReportsAFolderItCannotSaveInto) {
  TempDir dir;
  const std::string blocker = Utf8Path(dir.Write("blocker", "a file, not a folder"));
  const CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--save", blocker});
  EXPECT_EQ(run.ExitCode, 73);
  EXPECT_EQ(run.Err, "pendrel: cannot make the folder \"" + blocker + "\"\n");
}

// ---------------------------------------------------------------------------------------
// Failures of the handler: in English, naming the handler and the cause, with the exit
// statuses of the help's table; standard output stays empty.

TEST(CliFailure, AHandlerThatDoesNotExistExits69WithTheSystemsReason) {
  TempDir dir;
  const std::string missing = Utf8Path(dir.path() / "no-such-handler");
  const CProgramRun run = Pendrel({"call", missing, "--command", "PING"});
  EXPECT_EQ(run.ExitCode, 69);
  EXPECT_EQ(run.Out, "");
  const std::string expected = "pendrel: cannot start the handler \"" + missing + "\": ";
  EXPECT_EQ(run.Err.rfind(expected, 0), 0u) << run.Err;
  EXPECT_GT(run.Err.size(), expected.size() + 1) << "the reason is missing";
  EXPECT_EQ(run.Err.find("\xD0"), std::string::npos) << "the library's own text: " << run.Err;
}

TEST(CliFailure, AFolderAsTheHandlerExits69SayingSo) {
  TempDir dir;
  const std::string folder = Utf8Path(dir.path());
  const CProgramRun run = Pendrel({"info", folder});
  EXPECT_EQ(run.ExitCode, 69);
  EXPECT_EQ(run.Err, "pendrel: cannot start the handler \"" + folder + "\": it is a folder\n");
}

TEST(CliFailure, AHandlerThatEndsBeforeConnectingExits69WithItsStatus) {
  const CProgramRun run =
      Pendrel({"info", TestHandler(), "--args", "--exit-before-connect --exit-code 64"});
  EXPECT_EQ(run.ExitCode, 69);
  EXPECT_EQ(run.Out, "");
  EXPECT_EQ(run.Err, "pendrel: the handler \"" + TestHandler() +
                         "\" ended before it connected to its pipe: it exited with status 64\n");
}

TEST(CliFailure, AHandlerThatEndsBetweenExchangesExits70WithItsStatus) {
  // The handler answers RequestHandlerInfo and ends; the next query meets the closed pipe.
  const CProgramRun run =
      Pendrel({"info", TestHandler(), "--args", "--exit-after 1 --exit-code 7"});
  EXPECT_EQ(run.ExitCode, 70);
  EXPECT_EQ(run.Out, "");
  const std::string expected =
      "pendrel: the handler \"" + TestHandler() + "\" failed during RequestLibVersion: ";
  EXPECT_EQ(run.Err.rfind(expected, 0), 0u) << run.Err;
  const std::string end = "; it exited with status 7\n";
  ASSERT_GT(run.Err.size(), end.size());
  EXPECT_EQ(run.Err.substr(run.Err.size() - end.size()), end) << run.Err;
}

TEST(CliFailure, NoAnswerInTimeExits75NamingTheLimit) {
  const CProgramRun run = Pendrel({"call", TestHandler(), "--args", "--hang-in-request",
                                   "--timeout", "1", "--command", "PING"});
  EXPECT_EQ(run.ExitCode, 75);
  EXPECT_EQ(run.Out, "");
  EXPECT_EQ(run.Err, "pendrel: the handler \"" + TestHandler() +
                         "\" did not answer the request within 1 s (--timeout); it was stopped\n");
}

TEST(CliFailure, VerboseAlsoGivesTheLibrarysOwnText) {
  const CProgramRun run = Pendrel(
      {"info", TestHandler(), "--verbose", "--args", "--exit-before-connect --exit-code 64"});
  EXPECT_EQ(run.ExitCode, 69);
  EXPECT_NE(run.Err.find("\npendrel: the library said: error 5 (StartFailed): "), std::string::npos)
      << run.Err;
}

TEST(CliFailure, FailTurnsTheErrorStatusIntoExit1AndStillPrintsTheResponse) {
  const std::string response =
      R"({"status":3,"Parameters":{"Command":"PING","CommandAtribute":""}})"
      "\n";
  CProgramRun run = Pendrel({"call", TestHandler(), "--command", "PING", "--fail"});
  EXPECT_EQ(run.ExitCode, 1);
  EXPECT_EQ(run.Out, response);
  EXPECT_EQ(run.Err, "pendrel: the handler answered with the error status 3 (--fail)\n");
  run = Pendrel({"call", TestHandler(), "--command", "PING"});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Out, response);
  run = Pendrel({"call", TextStats(), "--command", "STATS", "--file", Sample(), "--fail"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
}

TEST(CliOutput, TheHandlersOwnOutputGoesToStandardError) {
  const CProgramRun run =
      Pendrel({"call", TestHandler(), "--args", "--print hello", "--command", "PING"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Parameters":{"Command":"PING","CommandAtribute":""}})"
                     "\n");
  EXPECT_NE(run.Err.find("out:hello"), std::string::npos) << run.Err;
  EXPECT_NE(run.Err.find("err:hello"), std::string::npos) << run.Err;
}

TEST(CliOutput, QuietLeavesOutTheProgressLine) {
  const CProgramRun run =
      Pendrel({"call", TextStats(), "--command", "STATS", "--file", Sample(), "--quiet"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, kSampleStats);
  EXPECT_EQ(run.Err, "");
}

TEST(CliOutput, VerboseShowsEachMessageWithItsSize) {
  const CProgramRun run =
      Pendrel({"call", TestHandler(), "--command", "PING", "--verbose", "--output", "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  const std::string request =
      R"({"Command":"PING","CommandAtribute":"","CommandParams":{},"RequestParams":{},)"
      R"("InputData":[]})";
  EXPECT_NE(run.Err.find("pendrel: > request (" + std::to_string(request.size()) +
                         " bytes): " + request + "\n"),
            std::string::npos)
      << run.Err;
  EXPECT_NE(run.Err.find("pendrel: < response, as read ("), std::string::npos) << run.Err;
}

TEST(CliKit, AHandlerStartedByHandSaysHowToRunIt) {
  const CProgramRun run = RunProgram(TextStats(), {});
  EXPECT_EQ(run.ExitCode, 64);
  EXPECT_EQ(run.Out, "");
  EXPECT_NE(run.Err.find(": no pipe name: the _MN_=<name> argument is missing or empty. This is "
                         "a pendrel handler: a host starts it"),
            std::string::npos)
      << run.Err;
  EXPECT_NE(run.Err.find("To run it by hand: pendrel call "), std::string::npos) << run.Err;
  EXPECT_EQ(run.Err.find('\n'), run.Err.size() - 1) << "one line: " << run.Err;
}

// ---------------------------------------------------------------------------------------
// info, task and session.

TEST(CliInfo, PrintsTheDescriptionAndVersions) {
  const CProgramRun run = Pendrel({"info", TestHandler()});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":0,"Parameters":{"Description":"Test handler of pendrel",)"
                     R"("InputFileSize":"123456789","LibVersion":"4","Name":"TestHandler",)"
                     R"("Version":"1.0"}})"
                     "\n");
}

TEST(CliTask, PrintsTheTaskDescription) {
  const CProgramRun run = Pendrel({"task", TestHandler(), "T7", "--output", "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":0,"Description":"Test task T7","Name":"Task T7","TaskCode":"T7"})"
                     "\n");
  EXPECT_EQ(run.Err, "");
}

TEST(CliSession, SendsOpeningRequestAndClosingInOrder) {
  TempDir dir;
  const std::string record = Utf8Path(dir.path() / "record");
  const CProgramRun run = Pendrel({"session",
                                   TestHandler(),
                                   "17",
                                   "operator1",
                                   "--task-id",
                                   "42",
                                   "--handler-code",
                                   "H1",
                                   "--task-code",
                                   "T7",
                                   "--log-file",
                                   "run.log",
                                   "--task-timeout",
                                   "600",
                                   "--args",
                                   "--record " + record,
                                   "--command",
                                   "PING",
                                   "--output",
                                   "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"session":"17","Command":"PING","CommandAtribute":""})"
                     "\n");
  EXPECT_EQ(run.Err.rfind(R"(session opened: {"status":3,"session":"17",)", 0), 0u) << run.Err;
  const std::vector<std::string> messages =
      WaitForRecordedMessages(record, 3, std::chrono::seconds(10));
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0],
            "OnCreateSession&SessionKey=17&User=operator1&HandleTaskID=42&HandlerCode=H1"
            "&HandlerTaskCode=T7&LogFileName=run.log&TaskTimeoutS=600");
  EXPECT_EQ(messages[1],
            R"({"Command":"PING","CommandAtribute":"","CommandParams":{},"RequestParams":{},)"
            R"("InputData":[]})");
  EXPECT_EQ(messages[2], "OnCloseSession");
}

// ---------------------------------------------------------------------------------------
// The example handler, as the README's first command shows it.

TEST(CliExample, CountsTheSampleWithProgress) {
  const CProgramRun run = Pendrel({"call", TextStats(), "--command", "STATS", "--file", Sample()});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, kSampleStats);
  EXPECT_EQ(run.Err, kSampleProgress);
}

TEST(CliExample, ConvertsTheSampleToJsonAsHttp) {
  const CProgramRun run = Pendrel(
      {"call", TextStats(), "--command", "CSV2JSON", "--file", Sample(), "--output", "http"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            "Content-Type: application/json; charset=utf-8; name=\"sample\"\n"
            "Content-Disposition: inline; filename=\"sample.json\"\n\n" +
                std::string(kSampleJson));
  EXPECT_EQ(run.Err, "");
}

TEST(CliExample, ConvertsWithAnotherDelimiter) {
  TempDir dir;
  const std::string input = Utf8Path(dir.Write("semi.csv", "a;b\r\n1;\"x;y\"\r\n2\r\n"));
  const CProgramRun run = Pendrel({"call", TextStats(), "--command", "CSV2JSON", "--param",
                                   "delimiter=;", "--file", input, "--output", "http"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            "Content-Type: application/json; charset=utf-8; name=\"semi\"\n"
            "Content-Disposition: inline; filename=\"semi.json\"\n\n"
            "[\n  {\"a\": \"1\", \"b\": \"x;y\"},\n  {\"a\": \"2\"}\n]\n");
}

TEST(CliExample, SavesTheTablesOfTheCount) {
  TempDir dir;
  const std::string out = Utf8Path(dir.path() / "tables");
  const CProgramRun run = Pendrel({"call", TextStats(), "--command", "STATS", "--param",
                                   "report=files", "--file", Sample(), "--save", out});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            R"({"Data":[{"Type":9,"FileName":"stats.csv","Title":"stats",)"
            R"("Data":"file,lines,words,bytes\nsample.csv,5,9,169\n","IsAttachment":false},)"
            R"({"Type":2,"FileName":"stats.json","Title":"stats","Data":"[\n  {\"file\": )"
            R"(\"sample.csv\", \"lines\": 5, \"words\": 9, \"bytes\": 169}\n]\n",)"
            R"("IsAttachment":false}],"status":1,"Parameters":{}})"
            "\n");
  EXPECT_EQ(run.Err,
            "saved: " + out + "/stats.csv (42 bytes)\nsaved: " + out + "/stats.json (67 bytes)\n");
  EXPECT_EQ(ReadFile(dir.path() / "tables" / "stats.csv"), kStatsCsv);
  EXPECT_EQ(ReadFile(dir.path() / "tables" / "stats.json"), kStatsJson);
}

TEST(CliExample, AnswersAnUnknownCommandWithAnErrorResponse) {
  const CProgramRun run = Pendrel({"call", TextStats(), "--command", "NOPE"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out, R"({"status":3,"Parameters":{"error":"unknown command \"NOPE\"; this handler )"
                     R"(knows STATS and CSV2JSON"}})"
                     "\n");
}

TEST(CliExample, TakesItsInputLimitFromItsExtraArguments) {
  const CProgramRun info =
      Pendrel({"info", TextStats(), "--args", "--max-bytes 100", "--output", "common"});
  EXPECT_EQ(info.ExitCode, 0) << info.Err;
  EXPECT_EQ(info.Out,
            R"({"status":0,"Description":"Counts lines, words and bytes of text files and )"
            R"(converts CSV to JSON","InputFileSize":"100","LibVersion":"4",)"
            R"("Name":"Text statistics","Version":"1.0"})"
            "\n");
  const CProgramRun call = Pendrel(
      {"call", TextStats(), "--args", "--max-bytes 100", "--command", "STATS", "--file", Sample()});
  EXPECT_EQ(call.ExitCode, 0) << call.Err;
  EXPECT_EQ(call.Out,
            R"({"status":3,"Parameters":{"error":"sample.csv is larger than the 100 bytes )"
            R"(this handler takes"}})"
            "\n");
}

TEST(CliExample, DescribesItsTasks) {
  const CProgramRun known = Pendrel({"task", TextStats(), "CSV2JSON", "--output", "common"});
  EXPECT_EQ(known.ExitCode, 0) << known.Err;
  EXPECT_EQ(known.Out,
            R"({"status":0,"Description":"Every input file from CSV to a JSON array of objects )"
            R"(named by its header; DELIMITER sets the field separator","Name":"CSV to JSON",)"
            R"("TaskCode":"CSV2JSON"})"
            "\n");
  const CProgramRun unknown = Pendrel({"task", TextStats(), "NOPE"});
  EXPECT_EQ(unknown.ExitCode, 0) << unknown.Err;
  EXPECT_EQ(unknown.Out,
            R"({"status":0,"Parameters":{"Description":"","Name":"","TaskCode":"NOPE"}})"
            "\n");
  EXPECT_EQ(unknown.Err, "pendrel: the handler describes no task \"NOPE\"\n");
}

TEST(CliExample, AnswersInTheSession) {
  const CProgramRun run = Pendrel({"session", TextStats(), "17", "ann", "--command", "STATS",
                                   "--file", Sample(), "--output", "common"});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Out,
            R"({"status":0,"session":"17","phase":{"pos":1,"total":1},)"
            R"("phaseProgress":{"pos":169,"total":169},"taskProgress":{"pos":169,"total":169,)"
            R"("time":0},"BYTES":"169","FILES":"1","LINES":"5","WORDS":"9",)"
            R"("sample.csv":"5 lines, 9 words, 169 bytes"})"
            "\n");
  EXPECT_EQ(run.Err, std::string(R"(session opened: {"status":0,"session":"17","User":"ann"})") +
                         "\n" + kSampleProgress);
}

}  // namespace
}  // namespace pendrel_test
