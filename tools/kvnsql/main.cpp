// kvnsql: a command-line client of the Korvane service. Opens a session and
// one logical connection, then runs the statements of -c, of a file or of
// standard input.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>

#include "Options.h"
#include "Session.h"
#include "Statements.h"
#include "Utf8.h"

namespace {

void PrintError(const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "kvnsql: %s\n", text.c_str());
}

// Reads lines from in until the end or \quit; false when a statement failed.
bool RunLines(KvnsqlSession& session, std::istream& in, bool prompt) {
    StatementSplitter splitter;
    bool ok = true;
    std::string line;
    for (;;) {
        if (prompt) {
            std::fputs(splitter.Pending() ? "     -> " : "kvnsql> ", stderr);
            std::fflush(stderr);
        }
        if (!std::getline(in, line)) break;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        for (const InputItem& item : splitter.AddLine(Utf8ToWide(line))) {
            ok = session.Run(item) && ok;
            if (session.QuitRequested()) return ok;
        }
    }
    if (prompt) std::fputs("\n", stderr);
    for (const InputItem& item : splitter.Finish()) {
        ok = session.Run(item) && ok;
        if (session.QuitRequested()) break;
    }
    return ok;
}

bool RunCommands(KvnsqlSession& session, const std::vector<std::string>& commands) {
    bool ok = true;
    for (const std::string& text : commands) {
        for (const InputItem& item : SplitText(Utf8ToWide(text))) {
            ok = session.Run(item) && ok;
            if (session.QuitRequested()) return ok;
        }
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    KvnsqlOptions options;
    std::string error;
    switch (ParseKvnsqlOptions(argc, argv, options, error)) {
    case OptionsResult::Help:
        std::fputs(KvnsqlHelp(argc > 0 ? argv[0] : nullptr).c_str(), stdout);
        return 0;
    case OptionsResult::Version:
        std::fputs(KvnsqlVersion().c_str(), stdout);
        return 0;
    case OptionsResult::Error:
        PrintError(error);
        return 2;
    case OptionsResult::Run:
        break;
    }

    std::ifstream file;
    if (!options.file.empty() && options.file != "-") {
        file.open(options.file);
        if (!file) {
            PrintError("cannot read " + options.file);
            return 2;
        }
    }

    if (!SockInitWinSock()) {
        PrintError("the socket layer did not start");
        return 2;
    }
    int status = 0;
    {
        CKorvaneClient client;
        const std::wstring host = Utf8ToWide(options.host);
        const std::wstring application = Utf8ToWide(options.application);
        const std::wstring logFile = Utf8ToWide(options.logFile);
        int dbType = 0;
        if (client.Init(host.c_str(), options.port, options.loaderPort, application.c_str(), dbType,
                        options.logLevel, options.logFile.empty() ? nullptr : logFile.c_str(),
                        nullptr) != KVN_NO_ERROR) {
            PrintError("no session with the service at " + options.host + ":" +
                       std::to_string(options.port) + ": " + WideToUtf8(client.GetLastError().GetString()));
            status = 2;
        } else {
            const int hCnx = client.GetConnexion();
            if (hCnx < 0) {
                DStr text;
                client.GetErrorTxt(hCnx, text);
                PrintError("no connection from the service: " + std::to_string(hCnx) + " " +
                           WideToUtf8(text.GetString()) + " (" +
                           WideToUtf8(client.GetLastError().GetString()) + ")");
                status = 2;
            } else {
                KvnsqlSession session(client, hCnx, stdout, stderr, Utf8ToWide(options.nullText),
                                      options.echo);
                bool ok = true;
                if (!options.commands.empty()) {
                    ok = RunCommands(session, options.commands);
                } else if (file.is_open()) {
                    ok = RunLines(session, file, false);
                } else {
                    const bool prompt = options.prompt && options.file.empty();
                    if (prompt) {
                        std::fprintf(stderr, "Connected to %s:%d (database type %d). \\help for help.\n",
                                     options.host.c_str(), options.port, dbType);
                    }
                    ok = RunLines(session, std::cin, prompt);
                }
                status = ok ? 0 : 1;
                client.FreeConnexion(hCnx);
            }
        }
        client.Free();
    }
    SockCloseWinSock();
    return status;
}
