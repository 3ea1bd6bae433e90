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

int Count(const std::string& text, const std::string& part) {
    int n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

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
    int Logged(const std::string& part) const { return Count(ReadFile(dir_.File("loader.log")), part); }
    // Says GO and waits for the loader's word on it: whether it started its program.
    bool Go() {
        const int heard = Logged("GO received"), started = Logged("GO received: started");
        Say("GO");
        const auto start = kvntest::Clock::now();
        while (Logged("GO received") == heard && kvntest::MsSince(start) < 10000) KvnSleep(10);
        return Logged("GO received: started") > started;
    }

private:
    TempDir dir_;
    KvnProcess process_ = 0;
    unsigned short port_ = 0;
};

}  // namespace

TEST(ServiceLoader, StartsItsProgramOnGoOnly) {
    TempDir marks;
    const std::string file = marks.File("starts");
    Loader loader("echo started >> '" + file + "'");
    loader.Say("NO");
    loader.Say("G");
    EXPECT_TRUE(loader.Go());
    EXPECT_EQ(1, loader.Logged("GO received")) << "NO and G are no GO";
    ASSERT_TRUE(WaitForText(file, "started", 5000));
    // The program ends by itself: a GO starts it again once the loader has
    // seen it end (until then it is running already).
    bool again = false;
    for (int i = 0; i < 250 && !(again = loader.Go()); ++i) KvnSleep(20);
    EXPECT_TRUE(again);
    EXPECT_TRUE(WaitForText(file, "started\nstarted\n", 5000));
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
