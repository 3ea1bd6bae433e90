// What kvnsql asks of the system: whether a stream is a terminal and its
// size, line editing with a history (libedit), Ctrl-C, and the pager. The
// only part of kvnsql that calls the system directly (kvnsql is a Linux
// tool, like the service).
#ifndef KVNSQL_TERMINAL_H
#define KVNSQL_TERMINAL_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// kvnsql reads and writes UTF-8 whatever the locale, but line editing and
// display widths follow LC_CTYPE: this takes the user's, or C.UTF-8 when
// that one is not UTF-8.
void UseUtf8Locale();

bool IsTerminal(std::FILE* stream);
// Lines and columns of the terminal behind stream; false when it is none.
bool TerminalSize(std::FILE* stream, int& rows, int& columns);

// Ctrl-C. At the prompt it clears the line being typed (a reader returns
// Interrupted); while kvnsql waits for the service (ServiceWait) it only
// says that the service finishes the statement, and the session goes on
// once the answer came; while rows are fetched (RowFetch) the fetch stops.
// A second Ctrl-C within a second while waiting ends kvnsql. Without a
// terminal on standard input, Ctrl-C between statements ends kvnsql.
void InstallInterruptHandler(bool interactive);
// A Ctrl-C came since the last ClearInterrupt.
bool Interrupted();
void ClearInterrupt();

// While one lives, kvnsql waits for the service's answer.
class ServiceWait {
public:
    explicit ServiceWait(bool fetching = false);
    ~ServiceWait();
    ServiceWait(const ServiceWait&) = delete;
    ServiceWait& operator=(const ServiceWait&) = delete;

private:
    int previous_;
};

// Threads started while one lives never take Ctrl-C (the library's own
// threads), so that it always reaches the thread that reads and waits.
class InterruptsBlocked {
public:
    InterruptsBlocked();
    ~InterruptsBlocked();
    InterruptsBlocked(const InterruptsBlocked&) = delete;
    InterruptsBlocked& operator=(const InterruptsBlocked&) = delete;
};

// Lines of input, without their line end.
class LineReader {
public:
    enum class Result { Line, End, Interrupted };
    virtual ~LineReader() = default;
    // prompt is shown only by readers made with one.
    virtual Result Read(const std::string& prompt, std::string& line) = 0;
};

// Lines of a file or of standard input, without prompt.
std::unique_ptr<LineReader> MakeFileReader(std::FILE* in);
// Standard input on a terminal: the prompt on standard error, line editing
// and the history of historyFile (none when empty) when standard error is a
// terminal too, tab completion of the words given (backslash commands at
// the start of a line).
std::unique_ptr<LineReader> MakeTerminalReader(const std::string& historyFile,
                                               const std::vector<std::string>& completions);
// ~/.kvnsql_history, or empty without a home directory.
std::string HistoryFile();

// Writes text through the pager command (run by sh -c) and waits for it;
// false when the pager could not run and nothing was shown.
bool ShowInPager(const std::string& text, const std::string& command);

#endif
