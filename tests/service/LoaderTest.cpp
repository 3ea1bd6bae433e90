// korvane-loader: starts its program when a client sends "GO", and only then.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "net/Transport.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace {

// The loader, starting a shell line when it hears "GO".
class Loader {
public:
    explicit Loader(const std::string& line) {
        process_ = StartProgram({KVN_LOADER_PATH, "--port", "0", "--port-file", dir_.File("port"), "--", "/bin/sh",
                                 "-c", line},
                                dir_.File("loader.log"));
        port_ = process_ != 0 ? WaitForPortFile(dir_.File("port"), 10000) : 0;
        EXPECT_NE(0, port_);
    }
    ~Loader() { Stop(); }
    // SIGTERM, then its exit code once it ended (-1 when it did not).
    int Stop() {
        int code = -1;
        if (process_ != 0 && KvnTerminateProcess(process_)) KvnWaitProcess(process_, 40000, &code);
        process_ = 0;
        return code;
    }
    void Say(const char* bytes) {
        ClientSocket s(port_);
        ASSERT_TRUE(s.Valid());
        SockSend(s.Get(), bytes, static_cast<int>(std::strlen(bytes)), 1000);
    }

private:
    TempDir dir_;
    KvnProcess process_ = 0;
    unsigned short port_ = 0;
};

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
    while (LinesIn(path) < lines && kvntest::MsSince(start) < timeoutMs) KvnSleep(20);
    return LinesIn(path) >= lines;
}

}  // namespace

TEST(ServiceLoader, StartsItsProgramOnGoOnly) {
    TempDir marks;
    const std::string file = marks.File("starts");
    Loader loader("echo started >> '" + file + "'");
    loader.Say("NO");
    loader.Say("G");
    loader.Say("GO");
    EXPECT_TRUE(WaitForLines(file, 1, 5000));
    // The program ended by itself: the next GO starts it again.
    loader.Say("GO");
    EXPECT_TRUE(WaitForLines(file, 2, 5000));
    KvnSleep(200);
    EXPECT_EQ(2, LinesIn(file)) << "only the two GO start it";
}

TEST(ServiceLoader, StartsTheServiceThatClientsThenReachAndStopsItWhenItStops) {
    TempDir dir;
    const std::string servicePort = dir.File("service-port");
    const std::string pidFile = dir.File("service-pid");
    // The shell's process becomes the service (exec), so its id is the service's.
    Loader loader("echo $$ > '" + pidFile + "'; exec '" + KVN_KORVANED_PATH + "' --port 0 --port-file '" +
                  servicePort + "' --database '" + dir.File("db") + "' --hb-mode unicast --hb-port 9");
    loader.Say("GO");
    const unsigned short port = WaitForPortFile(servicePort, 10000);
    long long pid = 0;
    std::ifstream(pidFile) >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_NE(0, port);
    EXPECT_EQ(0, port != 0 ? RegisterWithin(port, 5000) : -1);
    // The loader stops, and its service with it.
    EXPECT_EQ(0, loader.Stop());
    EXPECT_FALSE(KvnTerminateProcess(static_cast<KvnProcess>(pid))) << "the service's process is gone";
    SOCKET s = KvnTcpSocket();
    EXPECT_NE(0, KvnConnect(s, KvnLoopbackAddress(), port)) << "nobody listens on the service's port";
    KvnCloseSocket(s);
}
