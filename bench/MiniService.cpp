// The benchmark's in-process service: one thread per accepted link, each
// waiting on a socket event as korvaned's sessions do, and answering with the
// library's own message class.
#include "MiniService.h"

#include <cwchar>

#include <korvane/CMsgSocket.h>
#include <korvane/CParamComm.h>
#include <korvane/KvnDefs.h>

#include "platform/Kernel.h"
#include "platform/Sockets.h"

namespace {

const int kIdApplication = 7;
// The stop flag is looked at this often by idle threads.
const DWORD kIdleMs = 200;

void AddLong(CMsgSocket& m, int value) { m.AddParametre(SQL_C_LONG, 4, &value); }

// The ten communication parameters of a registration: the client's own
// defaults, and a heartbeat that never comes (so none is missed).
void AnswerRegistration(CMsgSocket& answer) {
    const CParamComm defaults;
    static const wchar_t kAddress[] = L"127.0.0.1";
    answer.SetEntete(kIdApplication, KVN_INIT_OK, 0);
    AddLong(answer, 4000);  // heartbeat period
    AddLong(answer, 3);
    AddLong(answer, 9);     // heartbeat port
    AddLong(answer, 0);     // unicast
    answer.AddParametre(SQL_C_WCHAR, static_cast<unsigned>(std::wcslen(kAddress)), kAddress);
    AddLong(answer, 0);
    AddLong(answer, defaults.nNbRetrySend);
    AddLong(answer, defaults.nTimeOutConnect);
    AddLong(answer, defaults.nTimeOutAck);
    AddLong(answer, 1);     // database type
}

}  // namespace

MiniService::MiniService() : m_listener(KvnTcpListen(KvnLoopbackAddress(), 0, 128)), m_port(0) {
    if (m_listener == INVALID_SOCKET) return;
    m_port = KvnGetLocalPort(m_listener);
    m_acceptor = std::thread([this] { Accept(); });
}

MiniService::~MiniService() {
    m_stop = true;
    if (m_acceptor.joinable()) m_acceptor.join();
    std::vector<std::thread> links;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        links.swap(m_links);
    }
    for (std::thread& t : links) t.join();
    if (m_listener != INVALID_SOCKET) KvnCloseSocket(m_listener);
}

void MiniService::Accept() {
    while (!m_stop) {
        SOCKET s = KvnAccept(m_listener, kIdleMs);
        if (s == INVALID_SOCKET) continue;
        KvnSetSocketOption(s, KVN_TCP_NODELAY, 1);
        std::lock_guard<std::mutex> guard(m_lock);
        m_links.emplace_back([this, s] { Serve(s); });
    }
}

void MiniService::Serve(SOCKET sock) {
    WSAEVENT readable = KvnCreateSocketEvent();
    KvnSocketEventSelect(sock, readable, FD_READ | FD_CLOSE);
    CMsgSocket request;
    while (!m_stop) {
        if (KvnWaitForSingleObject(readable, kIdleMs) != WAIT_OBJECT_0) continue;
        long events = 0;
        if (KvnEnumNetworkEvents(sock, readable, &events, nullptr) != 0 || (events & FD_CLOSE)) break;
        if (!(events & FD_READ)) continue;
        if (request.ReceiveMessage(sock) <= 0) continue;
        const int fonction = request.GetFonction();
        CMsgSocket answer;
        switch (fonction) {
        case KVN_INIT_APPLICATION:
        case KVN_REINIT_APPLICATION:
            AnswerRegistration(answer);
            break;
        case KVN_INIT_CONNEXION:
        case KVN_REINIT_CONNEXION:
            answer.SetEntete(request.GetIdApplication(), KVN_INIT_OK, request.GetIdConnexion());
            break;
        case KVN_EXECUTE:
            answer.SetEntete(request.GetIdApplication(), fonction, request.GetIdConnexion());
            AddLong(answer, 0);
            AddLong(answer, 1);
            break;
        default:
            request.ClearMessage();
            continue;  // acknowledged already; nothing to answer
        }
        request.ClearMessage();
        if (answer.SendMessageW(sock, 1, -1) != 1) break;
    }
    KvnCloseSocketEvent(readable);
    KvnCloseSocket(sock);
}
