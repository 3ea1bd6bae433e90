// korvane-loader: starts its program when a client sends "GO", and only then.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "net/Transport.h"
#include "platform/Process.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace {

// The loader, starting a shell line that counts its starts in a file.
class Loader {
public:
    explicit Loader(const std::string& script) : process_(0), port_(0) {
        const std::string portFile = dir_.File("loader-port");
        std::vector<std::string> args = {KVN_LOADER_PATH, "--port", "0", "--port-file", portFile, "--",
                                         "/bin/sh", "-c", script};
        std::vector<const char*> argv;
        for (const std::string& a : args) argv.push_back(a.c_str());
        argv.push_back(nullptr);
        process_ = KvnStartProcess(KVN_LOADER_PATH, argv.data(), dir_.File("loader.log").c_str(), TRUE);
        EXPECT_NE(0, process_);
        port_ = WaitForPortFile(portFile, 10000);
        EXPECT_NE(0, port_);
    }
    ~Loader() {
        if (process_ != 0) {
            KvnTerminateProcess(process_);
            KvnWaitProcess(process_, 10000, nullptr);
        }
    }
    unsigned short Port() const { return port_; }
    const TempDir& Dir() const { return dir_; }

private:
    TempDir dir_;
    KvnProcess process_;
    unsigned short port_;
};

void Say(unsigned short port, const char* bytes) {
    ClientSocket s(port);
    ASSERT_TRUE(s.Valid());
    SockSend(s.Get(), bytes, static_cast<int>(std::strlen(bytes)), 1000);
}

int LinesIn(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) ++n;
    return n;
}

// Waits up to timeoutMs for the file to hold `lines` lines.
bool WaitForLines(const std::string& path, int lines, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    while (LinesIn(path) < lines) {
        if (kvntest::MsSince(start) >= timeoutMs) return false;
        KvnSleep(20);
    }
    return true;
}

}  // namespace

TEST(ServiceLoader, StartsItsProgramOnGoOnly) {
    TempDir marks;
    const std::string file = marks.File("starts");
    Loader loader("echo started >> '" + file + "'");
    ASSERT_NE(0, loader.Port());

    Say(loader.Port(), "NO");
    Say(loader.Port(), "G");
    Say(loader.Port(), "GO");
    EXPECT_TRUE(WaitForLines(file, 1, 5000));
    // The program ended by itself: the next GO starts it again.
    Say(loader.Port(), "GO");
    EXPECT_TRUE(WaitForLines(file, 2, 5000));
    KvnSleep(200);
    EXPECT_EQ(2, LinesIn(file)) << "only the two GO start it";
}

TEST(ServiceLoader, StartsTheServiceThatClientsThenReach) {
    TempDir dir;
    const std::string servicePort = dir.File("service-port");
    const std::string pidFile = dir.File("service-pid");
    // The shell's process becomes the service (exec), so its id is the service's.
    const std::string line = "echo $$ > '" + pidFile + "'; exec '" + KVN_KORVANED_PATH + "' --port 0 --port-file '" +
                             servicePort + "' --database '" + dir.File("db") + "' --hb-mode unicast --hb-port 9";
    Loader loader(line);
    ASSERT_NE(0, loader.Port());
    Say(loader.Port(), "GO");
    const unsigned short port = WaitForPortFile(servicePort, 10000);
    long long pid = 0;
    std::ifstream(pidFile) >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_NE(0, port);
    if (port != 0) {
        EXPECT_EQ(0, RegisterWithin(port, 5000));
    }
    // The service is the loader's child, not ours: it is only asked to end.
    EXPECT_TRUE(KvnTerminateProcess(static_cast<KvnProcess>(pid)));
}
