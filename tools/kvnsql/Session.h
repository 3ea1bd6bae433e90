// A kvnsql session on one logical connection: runs statements and backslash
// commands through the library and prints their results and errors.
#ifndef KVNSQL_SESSION_H
#define KVNSQL_SESSION_H

#include <cstdio>
#include <string>
#include <vector>

#include "Params.h"
#include "Statements.h"
#include "TableOutput.h"

class CKorvaneClient;

struct SessionSettings {
    OutputStyle style;
    bool echo = false;         // print each statement before its result
    bool quiet = false;        // no "rows affected" and confirmation lines
    bool timing = false;       // the time of each statement, on standard error
    bool stopOnError = false;  // the input stops at the first failure
    bool pager = true;         // long results through pagerCommand...
    bool outIsTerminal = false;  // ...when the output is a terminal
    std::string pagerCommand;
    std::string source;        // the file read, named before its errors with the line
};

class KvnsqlSession {
public:
    // Results go to out; errors, footers and timings to err.
    KvnsqlSession(CKorvaneClient& client, int hCnx, std::FILE* out, std::FILE* err,
                  const SessionSettings& settings);

    // Runs a statement or a command; false when it failed or was cancelled.
    bool Run(const InputItem& item);
    bool QuitRequested() const { return quit_; }
    bool StopOnError() const { return settings_.stopOnError; }

private:
    // Statements (Session.cpp).
    bool RunStatement(const std::wstring& sql);
    bool RunBound(const std::wstring& sql);
    bool FetchRows(int columns, ResultTable& table);

    // Backslash commands (Commands.cpp).
    bool RunCommand(const std::wstring& command);
    bool Exists(const std::wstring& arguments);
    bool Columns(const std::wstring& arguments);
    bool Call(const std::wstring& arguments);
    bool Bind(const std::wstring& arguments);
    bool Requete(const std::wstring& arguments);
    bool Pset(const std::wstring& arguments);
    bool Set(const std::wstring& arguments);
    bool Timing(const std::wstring& arguments);

    // Output.
    void Print(const std::wstring& text);
    // A result: through the pager when it is longer or wider than the terminal.
    void Show(const std::wstring& text);
    // Confirmations and rows affected: on the output unless quiet.
    void Status(const std::wstring& text);
    // Footers, timings and notes: on standard error.
    void Note(const std::wstring& text);
    void ShowTiming(double milliseconds);
    // "ERROR code (what): text", then the service's own diagnostic when the
    // failure came from the database.
    void ReportError(const std::wstring& what, int code);
    void ReportUsage(const std::wstring& text);

    CKorvaneClient& client_;
    int hCnx_;
    std::FILE* out_;
    std::FILE* err_;
    SessionSettings settings_;
    bool quit_ = false;
    int line_ = 0;  // where the item being run starts
    std::vector<TypedValue> pendingBinds_;  // values for the next statement
};

#endif
