// kvnsql run as a program against korvaned: with its input from a text and
// its output captured, or on a pseudo-terminal driven key by key.
#ifndef KVN_TESTS_TOOLS_KVNSQLRUN_H
#define KVN_TESTS_TOOLS_KVNSQLRUN_H

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RunningService.h"

namespace kvnsqltest {

struct Outcome {
    int status = -1;  // the exit status; 128 + n when signal n ended it
    std::string out;
    std::string err;
};

// Runs kvnsql on the service's port with args, stdin as standard input.
Outcome RunKvnsql(unsigned short port, const std::vector<std::string>& args, const std::string& stdinText = "");

// kvnsql on a pseudo-terminal of 24 lines and 100 columns, with HOME (its
// history's place) and PAGER as given.
class Terminal {
public:
    Terminal(unsigned short port, const std::string& home, const std::string& pager = "cat");
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void Type(const std::string& keys);
    // Waits up to timeoutMs until the output since the last Expect holds
    // text; the output up to the end of text is then consumed. false (and a
    // test failure showing the output) when it does not come.
    bool Expect(const std::string& text, int timeoutMs = 10000);
    // The output read so far and not consumed.
    const std::string& Pending() const { return output_; }
    // Waits up to timeoutMs for the program's end: its status as in Outcome.
    int WaitForExit(int timeoutMs);

private:
    bool ReadSome(int timeoutMs);

    int master_ = -1;
    int pid_ = -1;
    std::string output_;
};

// Key sequences of a terminal.
extern const char* const kUp;
extern const char* const kCtrlC;

}  // namespace kvnsqltest

#endif
