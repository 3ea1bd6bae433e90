// One acknowledged exchange over loopback: the client's SendMessage (send,
// then wait for the 16-byte acknowledgement) against a thread that receives,
// decodes and acknowledges with ReceiveMessage. The time per iteration is the
// latency a small request pays before the service starts working on it.
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include <korvane/CMsgSocket.h>
#include <korvane/SockInit.h>

#include "platform/Sockets.h"

namespace {

void AcknowledgedSend(benchmark::State& state) {
    SockInitWinSock();
    SOCKET listener = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    const unsigned short port = KvnGetLocalPort(listener);
    SOCKET client = KvnTcpSocket();
    if (KvnConnect(client, KvnLoopbackAddress(), port) != 0) {
        state.SkipWithError("no loopback connection");
        return;
    }
    SOCKET server = KvnAccept(listener, 5000);
    KvnSetSocketOption(client, KVN_TCP_NODELAY, 1);
    KvnSetSocketOption(server, KVN_TCP_NODELAY, 1);

    std::atomic<bool> stop{false};
    std::thread service([&] {
        while (!stop.load()) {
            CMsgSocket m;
            if (m.ReceiveMessage(server) <= 0 && !stop.load()) {
                if (KvnWaitReadable(server, 100) < 0) break;
            }
        }
    });

    const wchar_t* sql = L"UPDATE orders SET state = 2 WHERE id = 1042";
    for (auto _ : state) {
        CMsgSocket m;
        m.SetEntete(7, KVN_EXECUTE, 1);
        m.AddParametre(SQL_C_WCHAR, 44, sql);
        if (m.SendMessageW(client, 1, 1000) != 1) {
            state.SkipWithError("not acknowledged");
            break;
        }
    }
    stop = true;
    KvnShutdown(client);
    service.join();
    KvnCloseSocket(client);
    KvnCloseSocket(server);
    KvnCloseSocket(listener);
    SockCloseWinSock();
}
BENCHMARK(AcknowledgedSend)->UseRealTime();

}  // namespace
