// A korvaned started for one test: its own temporary directory and SQLite
// file, an ephemeral port read from its port file, its log kept in the
// directory and shown when the test failed. Stopped at the end of the test.
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
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Waits up to timeoutMs for a file holding a port number, then returns it
// (0 when none came).
unsigned short WaitForPortFile(const std::string& path, int timeoutMs);

class RunningService {
public:
    // Starts korvaned with the test's arguments after the ones that place it
    // (port 0, port file, database file, unicast heartbeat to a port nobody
    // listens on unless the arguments say otherwise).
    explicit RunningService(const std::vector<std::string>& arguments = {});
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    // 0 when the service did not come up (the test has failed then).
    unsigned short Port() const { return port_; }
    const TempDir& Dir() const { return dir_; }
    // Whether the process still runs.
    bool Running();
    // What it wrote on its standard error so far.
    std::string Log() const;

private:
    TempDir dir_;
    KvnProcess process_;
    unsigned short port_;
};

#endif
