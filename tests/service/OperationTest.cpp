// korvaned as operators run it: who may connect, how it stops on a signal
// (and its loader with it), its log and pid files, a port already taken, a
// read-only database, its statistics page and its version.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include <korvane/SockInit.h>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "net/Transport.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace {

// A link from the given local address that sends a header the service
// refuses: true when the service closed it without a byte (the access list
// refused it), false when it answered.
bool ClosedWithoutAnswer(unsigned short port, const char* from) {
    SOCKET s = KvnTcpSocket();
    EXPECT_EQ(0, KvnBind(s, KvnInetAddr(from), 0));
    EXPECT_EQ(0, KvnConnect(s, KvnLoopbackAddress(), port));
    const std::vector<unsigned char> refused = Header(1, 3, 0, 0);
    SockSend(s, reinterpret_cast<const char*>(refused.data()), static_cast<int>(refused.size()), 1000);
    char byte;
    const bool closed = KvnWaitReadable(s, 5000) == 1 && KvnRecv(s, &byte, 1) <= 0;
    KvnCloseSocket(s);
    return closed;
}

class ServiceOperation : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(1, SockInitWinSock()); }
    void TearDown() override { SockCloseWinSock(); }
};

}  // namespace

TEST_F(ServiceOperation, OnlyTheAllowedNetworksMayOpenALinkAndRefusalsAreLogged) {
    RunningService defaults;
    ASSERT_NE(0, defaults.Port());
    EXPECT_TRUE(Contains(defaults.Log(), "listening on 127.0.0.1:"));
    EXPECT_FALSE(ClosedWithoutAnswer(defaults.Port(), "127.0.0.2")) << "all of loopback is allowed by default";

    RunningService one({"--allow", "127.0.0.1/32"});
    ASSERT_NE(0, one.Port());
    EXPECT_TRUE(ClosedWithoutAnswer(one.Port(), "127.0.0.2"));
    EXPECT_TRUE(WaitForText(one.File("korvaned.log"), "link from 127.0.0.2 refused", 5000));
    EXPECT_EQ(0, ApplicationLink(one.Port()).result) << "127.0.0.1 still gets in";

    RunningService wide({"--listen", "0.0.0.0"});
    ASSERT_NE(0, wide.Port());
    EXPECT_TRUE(Contains(wide.Log(), "warning: listening beyond loopback on 0.0.0.0: links are accepted from "
                                     "127.0.0.0/8"))
        << wide.Log();
}

TEST_F(ServiceOperation, SigtermAndSigintCloseEveryLinkLogTheCountsAndExitWithZero) {
    RunningService service({"--log-level", "1"});
    ASSERT_NE(0, service.Port());
    OpenConnexion open(service.Port());
    ASSERT_EQ(0, open.cnx.result);
    service.Signal("TERM");
    EXPECT_EQ(0, service.WaitForExit(15000));
    const std::string log = service.Log();
    EXPECT_TRUE(Contains(log, "SIGTERM received")) << log;
    EXPECT_TRUE(Contains(log, "shutting down: 1 applications, 1 connections, 2 links")) << log;
    EXPECT_TRUE(Contains(log, "stopped: 2 links closed")) << log;
    // Both links were closed by the service: their ends read the close.
    char byte;
    for (SOCKET s : {open.app.socket.Get(), open.cnx.socket.Get()}) {
        EXPECT_EQ(1, KvnWaitReadable(s, 2000));
        EXPECT_EQ(0, KvnRecv(s, &byte, 1));
    }

    // Started in the background by a script, a program has SIGINT ignored;
    // the service takes it back. Its pid file tells which process to signal.
    TempDir dir;
    const std::string pidFile = dir.File("korvaned.pid");
    const std::string log2 = dir.File("korvaned.log");
    ASSERT_EQ(0, Shell("trap '' INT; '" + std::string(KVN_KORVANED_PATH) + "' --port 0 --port-file '" +
                       dir.File("port") + "' --database '" + dir.File("db") + "' --pid-file '" + pidFile +
                       "' --log-file '" + log2 + "' --hb-mode unicast --hb-port 9 & wait_for=50; "
                       "while [ ! -s '" + pidFile + "' ] && [ $wait_for -gt 0 ]; do sleep 0.1; "
                       "wait_for=$((wait_for-1)); done; kill -INT $(cat '" + pidFile + "'); wait $!"));
    EXPECT_TRUE(Contains(ReadFile(log2), "SIGINT received")) << ReadFile(log2);
    EXPECT_TRUE(Contains(ReadFile(log2), "shutting down"));
    EXPECT_FALSE(std::ifstream(pidFile).good()) << "the pid file goes with the process";
}

TEST_F(ServiceOperation, SighupOpensTheLogFileAgainAfterARotation) {
    TempDir dir;
    RunningService logged({"--log-file", dir.File("k.log")});
    ASSERT_NE(0, logged.Port());
    ASSERT_TRUE(WaitForText(dir.File("k.log"), "listening on", 5000));
    ASSERT_EQ(0, std::rename(dir.File("k.log").c_str(), dir.File("k.log.1").c_str()));
    logged.Signal("HUP");
    ASSERT_TRUE(WaitForText(dir.File("k.log"), "log file opened again", 5000));
    EXPECT_EQ(0, ApplicationLink(logged.Port(), L"after-rotation").result);
    EXPECT_TRUE(WaitForText(dir.File("k.log"), "after-rotation", 5000));
    EXPECT_FALSE(Contains(ReadFile(dir.File("k.log.1")), "after-rotation"));
}

TEST_F(ServiceOperation, APortAlreadyTakenIsReportedInWordsAndLeavesNoDatabaseFile) {
    SOCKET taken = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    ASSERT_NE(INVALID_SOCKET, taken);
    TempDir dir;
    const KvnProcess p = StartProgram({KVN_KORVANED_PATH, "--port", std::to_string(KvnGetLocalPort(taken)),
                                       "--database", dir.File("never.db"), "--pid-file", dir.File("pid")},
                                      dir.File("log"));
    int code = -1;
    ASSERT_EQ(1, KvnWaitProcess(p, 20000, &code));
    EXPECT_EQ(1, code);
    EXPECT_TRUE(Contains(ReadFile(dir.File("log")), "Address already in use")) << ReadFile(dir.File("log"));
    EXPECT_FALSE(Contains(ReadFile(dir.File("log")), "10048"));
    EXPECT_FALSE(std::ifstream(dir.File("never.db")).good());
    EXPECT_FALSE(std::ifstream(dir.File("pid")).good());
    KvnCloseSocket(taken);
}

TEST_F(ServiceOperation, ReadOnlyServesReadsAndTheDatabaseRefusesWrites) {
    TempDir dir;
    const std::string db = dir.File("shop.db");
    {
        RunningService writer({"--database", db});
        ASSERT_NE(0, writer.Port());
        OpenConnexion open(writer.Port());
        ASSERT_TRUE(open.cnx.Execute(L"CREATE TABLE item (n INTEGER)"));
        ASSERT_TRUE(open.cnx.Execute(L"INSERT INTO item VALUES (42)"));
        EXPECT_EQ(0, LongAt(open.cnx.answer, 0));
    }
    RunningService reader({"--database", db, "--read-only"});
    ASSERT_NE(0, reader.Port());
    OpenConnexion open(reader.Port());
    ConnexionLink& cnx = open.cnx;
    ASSERT_TRUE(cnx.Select(L"SELECT n FROM item"));
    EXPECT_EQ(0, LongAt(cnx.answer, 0));
    EXPECT_EQ(42, LongAt(cnx.answer, 6));
    for (const wchar_t* write : {L"INSERT INTO item VALUES (1)", L"DROP TABLE item", L"PRAGMA query_only = 0; DELETE FROM item"}) {
        ASSERT_TRUE(cnx.Execute(write));
        EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(cnx.answer, 0));
        EXPECT_EQ(KVN_ERROR_ODBC, LongAt(cnx.answer, 1));
    }
    ASSERT_TRUE(cnx.Select(L"SELECT count(*) FROM item"));
    EXPECT_EQ(1, LongAt(cnx.answer, 6));

    // A data source the service cannot make read-only is refused at start.
    const KvnProcess p = StartProgram({KVN_KORVANED_PATH, "--odbc", "DSN=anything", "--read-only"}, dir.File("log"));
    int code = -1;
    ASSERT_EQ(1, KvnWaitProcess(p, 20000, &code));
    EXPECT_EQ(1, code);
    EXPECT_TRUE(Contains(ReadFile(dir.File("log")), "--read-only: ")) << ReadFile(dir.File("log"));
}

TEST_F(ServiceOperation, TheStatisticsPageCountsLinksRequestsErrorsAndLatency) {
    const unsigned short statsPort = FreeTcpPort();
    RunningService service({"--stats-port", std::to_string(statsPort)});
    ASSERT_NE(0, service.Port());
    OpenConnexion open(service.Port());
    ConnexionLink& cnx = open.cnx;
    ASSERT_TRUE(cnx.Execute(L"CREATE TABLE t (a INTEGER)"));
    ASSERT_TRUE(cnx.Execute(L"INSERT INTO nowhere VALUES (1)"));
    ASSERT_TRUE(cnx.Select(L"SELECT a FROM t"));

    // A request is counted once its answer was acknowledged, a moment after
    // the client has it: the page is read until nothing is under way.
    std::string page;
    const auto start = kvntest::Clock::now();
    do {
        ClientSocket reader(statsPort);
        const char request[] = "GET / HTTP/1.0\r\n\r\n";
        ASSERT_EQ(static_cast<int>(sizeof request - 1), SockSend(reader.Get(), request, sizeof request - 1, 2000));
        page.clear();
        char buffer[4096];
        int n = 0;
        while (KvnWaitReadable(reader.Get(), 5000) == 1 && (n = KvnRecv(reader.Get(), buffer, sizeof buffer)) > 0) {
            page.append(buffer, static_cast<std::size_t>(n));
        }
    } while (!Contains(page, "\nrequests_under_way 0\n") && kvntest::MsSince(start) < 5000 && (KvnSleep(20), true));
    EXPECT_EQ(0u, page.find("HTTP/1.0 200 OK\r\n")) << page;
    for (const char* line : {"\nlinks 2\n", "\napplications 1\n", "\nconnections 1\n", "\nrequests 3\n",
                             "\nrequests.EXECUTE 2\n", "\nrequests.EXECUTESELECT 1\n", "\nrequest_errors 1\n",
                             "\nlatency_window 3\n", "\nlatency_ms_p50 ", "\nlatency_ms_p99 "}) {
        EXPECT_TRUE(Contains(page, line)) << line << " in\n" << page;
    }
}

TEST_F(ServiceOperation, TheToolsTellTheirVersion) {
    TempDir dir;
    EXPECT_EQ(0, Shell("'" + std::string(KVN_KORVANED_PATH) + "' --version > '" + dir.File("v") + "' && '" +
                       KVN_LOADER_PATH + "' --version >> '" + dir.File("v") + "'"));
    const std::string versions = ReadFile(dir.File("v"));
    EXPECT_TRUE(Contains(versions, "korvaned 1.")) << versions;
    EXPECT_TRUE(Contains(versions, "korvane-loader 1.")) << versions;
}
