// Programs started for a test: korvaned on its own temporary directory and
// SQLite file (its log shown when the test failed), and a PostgreSQL server
// for the tests that need one.
#ifndef KVN_TESTS_SERVICE_RUNNINGSERVICE_H
#define KVN_TESTS_SERVICE_RUNNINGSERVICE_H

#include <string>
#include <vector>

#include "platform/Process.h"

// A fresh temporary directory, removed with its contents at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Ports on loopback that were free a moment ago (0 when none could be had);
// FreeUdpPort is the tests' support library's.
unsigned short FreeTcpPort();
unsigned short FreeUdpPort();

// Starts args[0] with args, its standard error to logFile (none when empty).
KvnProcess StartProgram(const std::vector<std::string>& args, const std::string& logFile);
// Runs a shell line and waits for it: its exit code.
int Shell(const std::string& line);

// Waits up to timeoutMs for a file holding a port number (0 when none came).
unsigned short WaitForPortFile(const std::string& path, int timeoutMs);
// What the file holds ("" when it cannot be read).
std::string ReadFile(const std::string& path);
inline bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
// Waits up to timeoutMs for the file to contain part; a test failure
// showing the file when it does not.
bool WaitForText(const std::string& path, const std::string& part, int timeoutMs = 10000);

// The arguments of a service that the library's clients use: its heartbeat
// really reaches them (a port of its own on 127.0.0.1; a loss is noticed by
// the links closing, so 20 periods of 250 ms are only patience with a busy
// machine), and a select's blocks hold blockRows rows. `more` comes last and
// may override any of them.
std::vector<std::string> ServiceArguments(int blockRows, const std::vector<std::string>& more = {});

class RunningService {
public:
    // Starts korvaned with the test's arguments after the ones that place it
    // (port 0, port file, database file, unicast heartbeat to port 9 unless
    // the arguments say otherwise); stops it at the end.
    explicit RunningService(const std::vector<std::string>& arguments = {});
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    // 0 when the service did not come up (the test has failed then).
    unsigned short Port() const { return port_; }
    bool Running();
    std::string Log() const { return ReadFile(File("korvaned.log")); }
    // A file in the service's own directory.
    std::string File(const std::string& name) const { return dir_.File(name); }
    KvnProcess Process() const { return process_; }
    // Sends the signal ("TERM", "INT", "HUP") with kill(1).
    void Signal(const char* name);
    // Waits up to timeoutMs for the service to end: its exit code, or -1.
    int WaitForExit(DWORD timeoutMs);

private:
    TempDir dir_;
    KvnProcess process_;
    unsigned short port_;
};

// A PostgreSQL server on a loopback port. Starting one takes seconds: ctest
// starts one for the whole run (its port in the file KVN_TEST_POSTGRES
// names); a test program run by hand starts its own with start-postgres.sh
// on first use and stops it at its end.
struct PostgresServer {
    std::string skipReason;  // why there is none (not installed, did not start)
    std::string connection;  // korvaned's --odbc connection string
};
PostgresServer& SharedPostgres();

#endif
