// A kvnsql session on one logical connection: runs statements and backslash
// commands through the library and prints their results and errors.
#ifndef KVNSQL_SESSION_H
#define KVNSQL_SESSION_H

#include <cstdio>
#include <string>
#include <vector>

#include "Params.h"
#include "Statements.h"

class CKorvaneClient;

class KvnsqlSession {
public:
    // out receives results, err the error texts; nullText is how NULL shows.
    KvnsqlSession(CKorvaneClient& client, int hCnx, std::FILE* out, std::FILE* err,
                  const std::wstring& nullText, bool echo);

    // Runs a statement or a command; false when it failed.
    bool Run(const InputItem& item);
    bool QuitRequested() const { return quit_; }

private:
    // Statements (Session.cpp).
    bool RunStatement(const std::wstring& sql);
    bool RunSelect(const std::wstring& sql);
    bool RunExecute(const std::wstring& sql);
    bool RunBound(const std::wstring& sql);
    std::vector<std::wstring> HeadersFor(const std::wstring& sql);

    // Backslash commands (Commands.cpp).
    bool RunCommand(const std::wstring& command);
    bool Exists(const std::wstring& arguments);
    bool Columns(const std::wstring& arguments);
    bool Call(const std::wstring& arguments);
    bool Bind(const std::wstring& arguments);
    bool Requete(const std::wstring& arguments);

    // Output.
    void Print(const std::wstring& text);
    // "ERROR code: text" for what failed, and the service's own diagnostic
    // when the failure came from the database.
    void ReportError(const std::wstring& what, int code);
    void ReportUsage(const std::wstring& text);

    CKorvaneClient& client_;
    int hCnx_;
    std::FILE* out_;
    std::FILE* err_;
    std::wstring nullText_;
    bool echo_;
    bool quit_ = false;
    std::vector<TypedValue> pendingBinds_;  // values for the next statement
};

#endif
