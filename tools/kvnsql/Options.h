// kvnsql's command line: where the service is, how to log, and where the
// statements come from.
#ifndef KVNSQL_OPTIONS_H
#define KVNSQL_OPTIONS_H

#include <string>
#include <vector>

#include "TableOutput.h"

struct KvnsqlOptions {
    std::string host = "127.0.0.1";
    int port = 5151;
    int loaderPort = 0;              // 0: no service loader to wake
    std::string application = "kvnsql";
    int logLevel = 0;                // the library's log; 0 writes nothing
    std::string logFile;             // empty: no log file
    std::vector<std::string> commands;  // -c, run in order, then exit
    std::string file;                // -f: statements from this file ("-": standard input)
    bool echo = false;               // print each statement before its result
    bool prompt = true;              // prompt when standard input is a terminal
    std::string nullText = "NULL";   // how a NULL cell is shown (CSV: empty unless --null)
    bool nullGiven = false;
    bool verbose = false;            // also the library's own sentence when no session opens

    // Output.
    OutputFormat format = OutputFormat::Aligned;
    bool tuplesOnly = false;         // rows alone: no header, no footer
    std::string fieldSeparator;      // empty: '|' unaligned, ',' CSV
    std::string outputFile;          // empty: standard output
    bool quiet = false;              // no banner, no "rows affected" lines
    bool pager = true;               // $PAGER for results longer than the terminal
    bool stopOnError = false;        // the first failure ends kvnsql (status 3)
};

enum class OptionsResult { Run, Help, Version, Error };

// Reads argv (UTF-8) into options; on Error, error says why.
OptionsResult ParseKvnsqlOptions(int argc, const char* const* argv, KvnsqlOptions& options,
                                 std::string& error);

// The text of --version.
std::string KvnsqlVersion();

// The text of --help: options, statement syntax and backslash commands.
std::string KvnsqlHelp(const char* program);

// The backslash commands alone (the text of \help).
std::string CommandsHelp();
// Their names, for completion.
const std::vector<std::string>& CommandNames();

#endif
