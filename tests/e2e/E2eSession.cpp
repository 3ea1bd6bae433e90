// Starting korvaned and a client session on it for the end-to-end tests.
#include "E2eSession.h"

#include <korvane/SockInit.h>

#include "platform/Sockets.h"

namespace e2e {

unsigned short FreeUdpPort() {
    SOCKET s = KvnUdpSocket();
    if (s == INVALID_SOCKET) return 0;
    unsigned short port = 0;
    if (KvnBind(s, KvnLoopbackAddress(), 0) == 0) port = KvnGetLocalPort(s);
    KvnCloseSocket(s);
    return port;
}

unsigned short FreeTcpPort() {
    SOCKET s = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    if (s == INVALID_SOCKET) return 0;
    const unsigned short port = KvnGetLocalPort(s);
    KvnCloseSocket(s);
    return port;
}

std::vector<std::string> ServiceArguments(int blockRows, const std::vector<std::string>& more) {
    // The client hears the heartbeat from the start. A service that goes
    // away is noticed by its links closing; the heartbeat's tolerance (20
    // periods of 250 ms) is only patience with a busy machine.
    std::vector<std::string> args = {"--block-rows", std::to_string(blockRows), "--hb-mode", "unicast",
                                     "--hb-address", "127.0.0.1", "--hb-port", std::to_string(FreeUdpPort()),
                                     "--hb-period", "250", "--hb-count", "20"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

std::string Narrow(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text) out += (*text > 0 && *text < 128) ? static_cast<char>(*text) : '?';
    return out;
}

void E2eTest::SetUp() { ASSERT_EQ(1, SockInitWinSock()); }

void E2eTest::TearDown() {
    client.Free();
    service.reset();
    SockCloseWinSock();
}

void E2eTest::Start(const std::vector<std::string>& arguments) {
    service = std::make_unique<RunningService>(arguments);
    ASSERT_NE(0, service->Port());
    ASSERT_EQ(KVN_NO_ERROR,
              client.Init(L"127.0.0.1", service->Port(), 0, L"e2e", dbType, 0, nullptr, nullptr))
        << Narrow(client.GetLastError().GetString());
    hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0) << Narrow(client.GetLastError().GetString());
}

int E2eTest::MustExecute(const wchar_t* sql) {
    int resultat = -12345;
    const int r = client.Execute(hCnx, sql, resultat);
    EXPECT_EQ(KVN_NO_ERROR, r) << Narrow(sql) << ": " << ErrorText();
    return resultat;
}

std::string E2eTest::ErrorText(int cnx) {
    DStr text(L"(no text)");
    const int r = client.GetLastErrorConnexion(cnx != 0 ? cnx : hCnx, text);
    if (r != KVN_NO_ERROR) return "(GetLastErrorConnexion: " + std::to_string(r) + ")";
    return Narrow(text.GetString());
}

}  // namespace e2e
