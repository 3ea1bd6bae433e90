// kvnsql: a command-line client of the Korvane service. Opens a session and
// one logical connection, then runs the statements of -c, of a file or of
// standard input.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>

#include "Options.h"
#include "Session.h"
#include "Statements.h"
#include "Terminal.h"
#include "Utf8.h"

namespace {

// Exit statuses.
const int kOk = 0;
const int kFailed = 1;
const int kNoSession = 2;
const int kStopped = 3;

void PrintError(const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "kvnsql: %s\n", text.c_str());
}

std::string ErrorText(CKorvaneClient& client, int code) {
    DStr text;
    client.GetErrorTxt(code, text);
    return ToUtf8(text.GetString());
}

// Runs one item; kStopped when it failed and the input is to stop there.
int RunItem(KvnsqlSession& session, const InputItem& item, bool interactive, bool& ok) {
    if (session.Run(item)) return kOk;
    ok = false;
    return session.StopOnError() && !interactive ? kStopped : kOk;
}

// Reads lines until the end or \quit.
int RunLines(KvnsqlSession& session, LineReader& reader, bool interactive) {
    StatementSplitter splitter;
    bool ok = true;
    std::string line;
    for (;;) {
        ClearInterrupt();
        const LineReader::Result read = reader.Read(splitter.Pending() ? "     -> " : "kvnsql> ", line);
        if (read == LineReader::Result::Interrupted) {
            splitter.Clear();
            continue;
        }
        if (read == LineReader::Result::End) break;
        for (const InputItem& item : splitter.AddLine(FromUtf8(line))) {
            if (RunItem(session, item, interactive, ok) == kStopped) return kStopped;
            if (session.QuitRequested()) return ok ? kOk : kFailed;
        }
    }
    if (interactive) {
        std::fputs("\n", stderr);  // after the Ctrl-D, whatever was typed is dropped
    } else {
        for (const InputItem& item : splitter.Finish()) {
            if (RunItem(session, item, interactive, ok) == kStopped) return kStopped;
            if (session.QuitRequested()) break;
        }
    }
    return ok ? kOk : kFailed;
}

int RunCommands(KvnsqlSession& session, const std::vector<std::string>& commands) {
    bool ok = true;
    for (const std::string& text : commands) {
        for (const InputItem& item : SplitText(FromUtf8(text))) {
            if (RunItem(session, item, false, ok) == kStopped) return kStopped;
            if (session.QuitRequested()) return ok ? kOk : kFailed;
        }
    }
    return ok ? kOk : kFailed;
}

SessionSettings SettingsOf(const KvnsqlOptions& options, std::FILE* out) {
    SessionSettings s;
    s.style.format = options.format;
    s.style.tuplesOnly = options.tuplesOnly;
    s.style.fieldSeparator = FromUtf8(options.fieldSeparator);
    s.style.nullText = options.format == OutputFormat::Csv && !options.nullGiven ? std::wstring()
                                                                                 : FromUtf8(options.nullText);
    s.echo = options.echo;
    s.quiet = options.quiet;
    s.stopOnError = options.stopOnError;
    s.pager = options.pager;
    s.outIsTerminal = IsTerminal(out);
    const char* pager = std::getenv("PAGER");
    s.pagerCommand = pager ? pager : "less -SFX";
    if (!options.file.empty() && options.file != "-") s.source = options.file;
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    UseUtf8Locale();
    KvnsqlOptions options;
    std::string error;
    switch (ParseKvnsqlOptions(argc, argv, options, error)) {
    case OptionsResult::Help:
        std::fputs(KvnsqlHelp(argc > 0 ? argv[0] : nullptr).c_str(), stdout);
        return kOk;
    case OptionsResult::Version:
        std::fputs(KvnsqlVersion().c_str(), stdout);
        return kOk;
    case OptionsResult::Error:
        PrintError(error);
        return kNoSession;
    case OptionsResult::Run:
        break;
    }

    std::FILE* in = stdin;
    if (!options.file.empty() && options.file != "-") {
        in = std::fopen(options.file.c_str(), "r");
        if (!in) {
            PrintError("cannot read " + options.file);
            return kNoSession;
        }
    }
    std::FILE* out = stdout;
    if (!options.outputFile.empty()) {
        out = std::fopen(options.outputFile.c_str(), "w");
        if (!out) {
            PrintError("cannot write " + options.outputFile);
            return kNoSession;
        }
    }
    const bool interactive = options.commands.empty() && options.file.empty() && IsTerminal(stdin);
    InstallInterruptHandler(interactive);

    if (!SockInitWinSock()) {
        PrintError("the socket layer did not start");
        return kNoSession;
    }
    int status = kOk;
    {
        CKorvaneClient client;
        const std::wstring host = FromUtf8(options.host);
        const std::wstring application = FromUtf8(options.application);
        const std::wstring logFile = FromUtf8(options.logFile);
        const std::string where = options.host + ":" + std::to_string(options.port);
        int dbType = 0;
        int hCnx = 0;
        int rc = 0;
        {
            // The library's threads, started here, leave Ctrl-C to this one.
            InterruptsBlocked blocked;
            rc = client.Init(host.c_str(), options.port, options.loaderPort, application.c_str(), dbType,
                             options.logLevel, options.logFile.empty() ? nullptr : logFile.c_str(), nullptr);
            if (rc == KVN_NO_ERROR) hCnx = client.GetConnexion();
        }
        // The library says why in French only: the English text of its code
        // (a service not found is the usual reason), the sentence on request.
        const std::string sentence = ToUtf8(client.GetLastError().GetString());
        const std::string detail = options.verbose && !sentence.empty() ? "\n  " + sentence : std::string();
        if (rc != KVN_NO_ERROR) {
            const bool notFound = sentence.compare(0, 29, "Impossible de trouver Korvane") == 0;
            PrintError("no session with the service at " + where + ": " +
                       (notFound ? ErrorText(client, KVN_ERROR_SERVER_NOT_FOUND)
                                 : "the service did not accept the session (" + ErrorText(client, rc) + ")") +
                       detail);
            status = kNoSession;
        } else if (hCnx < 0) {
            PrintError("no connection from the service at " + where + ": " + ErrorText(client, hCnx) + " (" +
                       std::to_string(hCnx) + ")" + detail);
            status = kNoSession;
        } else {
            KvnsqlSession session(client, hCnx, out, stderr, SettingsOf(options, out));
            if (!options.commands.empty()) {
                status = RunCommands(session, options.commands);
            } else if (!interactive) {
                status = RunLines(session, *MakeFileReader(in), false);
            } else {
                if (!options.quiet) {
                    std::fprintf(stderr, "Connected to %s (database type %d). \\help for help.\n", where.c_str(),
                                 dbType);
                }
                const std::unique_ptr<LineReader> reader =
                    options.prompt ? MakeTerminalReader(HistoryFile(), CommandNames()) : MakeFileReader(in);
                status = RunLines(session, *reader, true);
            }
            client.FreeConnexion(hCnx);
        }
        client.Free();
    }
    SockCloseWinSock();
    if (out != stdout && std::fclose(out) != 0) {
        PrintError("cannot write " + options.outputFile);
        if (status == kOk) status = kFailed;
    }
    if (in != stdin) std::fclose(in);
    return status;
}
