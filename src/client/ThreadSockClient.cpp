// ThreadSockClient: the thread of a logical connection. It owns the
// connection's socket: it watches it, receives what the service sends
// unasked and late answers and gives them to the result dispatch, notices the
// socket closing, and re-opens the connection with REINIT_CONNEXION, keeping
// its handle, once the main link is up again.
//
// A request goes out one of two ways (the request frame, src/operations/):
//  - the caller exchanges it itself: under m_mutexEnvoi it borrows the
//    socket (KvnLendSocketEvent: this thread is told of nothing on it
//    meanwhile, and does not wake), sends with EnvoiRequeteCnx, receives and
//    stores the answer, and gives the socket back;
//  - where a socket cannot be lent (Windows), it is handed over: the caller
//    publishes it in m_pMsgAEnvoyer under m_mutexEnvoi and sets m_hEvtEnvoi,
//    this thread sends it (EnvoiRequeteCnx) and sets msgSended when the send
//    was acknowledged (m_nCodeErreur 1), the answer's receiver stores it and
//    sets hEvtResultArrived, and the caller withdraws its request under
//    m_mutexEnvoi before it ends.
// m_mutexEnvoi is held by whoever sends, receives on, closes or replaces the
// socket, so this thread and a caller never meet on it.
//
// The thread blocks in one wait over its three events, its wake-up event
// (set when a loss marks the connection down, and when the main link comes
// back while it is down) and, while it is up, the socket's event, so a
// handed-over request is sent as soon as it is published and a change of the
// main link is seen at once.
#include <ctime>
#include <cwchar>
#include <random>

#include <korvane/CKorvaneClient.h>
#include <korvane/CMsgSocketClient.h>

#include "client/CConnexionKorvane.h"
#include "client/ClientGlobals.h"
#include "client/ClientThreads.h"
#include "client/ClientTimings.h"
#include "diag/Log.h"
#include "net/Transport.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// Order of the wait array: what comes first wins when several are set. A stop
// of the whole client wins over the close of this connection (which would
// report a change of state to the application), and both over a request.
enum {
    kIdxStop = 0,
    kIdxFermeture = 1,
    kIdxEnvoi = 2,
    kIdxReveil = 3,
    kIdxSocket = 4,
};

// Under m_mutexEnvoi, held by whoever uses the socket: a request sent from
// its caller's thread never meets a socket being closed or replaced.
void CloseCnxSocket(CConnexionKorvane* cnx) {
    cnx->m_mutexEnvoi.Lock(INFINITE);
    SOCKET s = cnx->m_sock.exchange(INVALID_SOCKET);
    if (KvnIsSocketOpen(s)) KvnCloseSocket(s);
    cnx->m_mutexEnvoi.Unlock();
}

}  // namespace

// The state of one ThreadSockClient, for the length of the thread.
class CThreadSockClient {
public:
    CThreadSockClient(CKorvaneClient* client, CConnexionKorvane* cnx);
    ~CThreadSockClient();
    void Run();

private:
    // What the wait of one pass found.
    enum Reveil { kStop, kFermeture, kEnvoi, kReveil, kSocket, kRien };

    Reveil Attend(DWORD timeoutMs);
    void TraiteSocket();
    void Reouvre();
    // Waits up to ms, or less when the thread is asked to end. True when it
    // is.
    bool Pause(DWORD ms);
    void Fin();
    bool LienPrincipalOk() const;

    CKorvaneClient* m_pClient;
    CConnexionKorvane* m_pCnx;
    HANDLE m_handles[5];
    WSAEVENT m_hSockEvt;
    CMsgSocketClient m_msg;
    char m_szHost[20];
    std::minstd_rand m_random;
};

unsigned ThreadSockClient(void* arg) {
    CParamThreadCnx* param = static_cast<CParamThreadCnx*>(arg);
    if (param == nullptr) return 0;
    CKorvaneClient* client = param->pClient;
    CConnexionKorvane* cnx = param->pConnexion;
    // The block is the thread's own: GetConnexion may have stopped waiting
    // for the start already.
    delete param;
    if (client == nullptr || cnx == nullptr) return 0;

    {
        CThreadSockClient thread(client, cnx);
        thread.Run();
    }
    // The thread's reference, counted for it by GetConnexion.
    cnx->Release();
    return 0;
}

void EnvoiRequeteCnx(CConnexionKorvane* cnx) {
    if (cnx == nullptr) return;
    // Held for the whole send: the caller cannot withdraw (and destroy) its
    // request while it is being sent.
    cnx->m_mutexEnvoi.Lock(INFINITE);
    CMsgSocketClient* msg = cnx->m_pMsgAEnvoyer;
    if (cnx->m_bConnected == 1 && msg != nullptr) {
        cnx->m_bMsgSended = 0;
        // An answer that this thread stored before the send (unasked, or late
        // for an earlier request) may have set the event after the caller
        // reset it: only what arrives after the send may wake the caller.
        KvnResetEvent(cnx->hEvtResultArrived);
        // -1, -1: text as UTF-16, the message's own acknowledgement wait.
        int r = msg->SendMessage(cnx->m_sock, -1, -1);
        cnx->m_nCodeErreur = r;
        if (r == 1) {
            cnx->m_dwTickEnvoi = KvnGetTickCount();
            ++cnx->m_nEnvois;
            cnx->m_bMsgSended = 1;
            msg->ClearMessage();
        } else {
            // Not acknowledged: the link cannot be trusted any more. The
            // thread re-opens it once the main link is up.
            cnx->m_bConnected = 0;
            CloseCnxSocket(cnx);
            KvnDebugOutput(L"\r\nErreur de Send Message  ");
        }
    } else {
        // Skipped (down, or the request was already withdrawn): the caller
        // decides by m_bMsgSended; m_nCodeErreur keeps its value.
        cnx->m_bMsgSended = 0;
    }
    cnx->m_mutexEnvoi.Unlock();
}

CThreadSockClient::CThreadSockClient(CKorvaneClient* client, CConnexionKorvane* cnx)
    : m_pClient(client), m_pCnx(cnx), m_hSockEvt(nullptr) {
    m_handles[kIdxStop] = client->m_hEvtStopThreads;
    m_handles[kIdxFermeture] = cnx->m_hEvtFermeture;
    m_handles[kIdxEnvoi] = cnx->m_hEvtEnvoi;
    m_handles[kIdxReveil] = cnx->m_hEvtReveil;
    m_hSockEvt = KvnCreateSocketEvent();
    m_handles[kIdxSocket] = m_hSockEvt;
    // Lent to a caller that sends its request itself (RequestFrame.cpp).
    cnx->m_mutexEnvoi.Lock(INFINITE);
    cnx->m_hEvtSocket = m_hSockEvt;
    cnx->m_mutexEnvoi.Unlock();
    WriteLogF(3, L"Demarrage de ThreadSockClient pour gerer la connexion = %d)",
              cnx->m_nIdConnexion);
    WideToNarrow(m_szHost, client->m_szAdresseHost);
    KvnSetEvent(client->m_hEvtThreadCnxStarted);

    if (m_hSockEvt != nullptr) {
        KvnResetSocketEvent(m_hSockEvt);
        KvnSocketEventSelect(cnx->m_sock, m_hSockEvt, FD_READ | FD_CLOSE);
    }
    m_msg.Init(client->m_nIdApplication, cnx->m_nIdConnexion, cnx->m_sock, &client->m_paramComm);
    // Spreads the re-openings of connections that lost the service together.
    m_random.seed(static_cast<unsigned>(std::time(nullptr)) ^
                  static_cast<unsigned>(cnx->m_nIdConnexion * 7919) ^ KvnGetTickCount());
}

CThreadSockClient::~CThreadSockClient() {
    m_pCnx->m_mutexEnvoi.Lock(INFINITE);
    m_pCnx->m_hEvtSocket = nullptr;
    m_pCnx->m_mutexEnvoi.Unlock();
    if (m_hSockEvt != nullptr) KvnCloseSocketEvent(m_hSockEvt);
}

bool CThreadSockClient::LienPrincipalOk() const {
    return m_pClient->m_bSockPrincipaleConnected == 1 && m_pClient->m_bAppliInitialisee == 1;
}

CThreadSockClient::Reveil CThreadSockClient::Attend(DWORD timeoutMs) {
    // The socket's event takes part only while the connection is up.
    const bool avecSocket =
        m_hSockEvt != nullptr && m_pCnx->m_bConnected == 1 && KvnIsSocketOpen(m_pCnx->m_sock);
    DWORD r = KvnWaitForMultipleObjects(avecSocket ? 5 : 4, m_handles, timeoutMs);
    switch (r) {
    case WAIT_OBJECT_0 + kIdxStop: return kStop;
    case WAIT_OBJECT_0 + kIdxFermeture: return kFermeture;
    case WAIT_OBJECT_0 + kIdxEnvoi: return kEnvoi;
    case WAIT_OBJECT_0 + kIdxReveil: return kReveil;
    case WAIT_OBJECT_0 + kIdxSocket: return kSocket;
    case WAIT_TIMEOUT: return kRien;
    default:
        // The events were closed under the thread: nothing more can be done
        // for this connection.
        return kStop;
    }
}

bool CThreadSockClient::Pause(DWORD ms) {
    return KvnWaitForMultipleObjects(2, m_handles, ms) != WAIT_TIMEOUT;
}

void CThreadSockClient::Run() {
    const int id = m_pCnx->m_nIdConnexion;
    for (;;) {
        // A connection marked down (by a loss, possibly before this thread
        // first got here) keeps no socket while it waits.
        const bool connecte = m_pCnx->m_bConnected == 1;
        if (!connecte) CloseCnxSocket(m_pCnx);
        // Sleep until something happens; down with the main link up, re-open
        // at once.
        const Reveil r = Attend(!connecte && LienPrincipalOk() ? 0 : INFINITE);
        if (r == kStop) break;
        if (r == kFermeture) {
            WriteLogF(4, L"ThreadSockClient: fermeture connexion %d demandee", id);
            KvnSetEvent(m_pClient->m_hEvtCommModified);
            break;
        }
        if (r == kEnvoi) {
            EnvoiRequeteCnx(m_pCnx);
            if (m_pCnx->m_nCodeErreur == 1)
                KvnSetEvent(m_pCnx->msgSended);
            else
                m_pCnx->m_bConnected = 0;
            continue;
        }
        // kReveil: the top of the loop sees what changed.
        if (r == kSocket && m_pCnx->m_bConnected == 1) TraiteSocket();
        if (r == kRien) Reouvre();
    }
    Fin();
}

void CThreadSockClient::TraiteSocket() {
    long events = 0;
    int closeError = 0;
    // A caller that sends its request itself holds the socket meanwhile.
    m_pCnx->m_mutexEnvoi.Lock(INFINITE);
    if (KvnEnumNetworkEvents(m_pCnx->m_sock, m_hSockEvt, &events, &closeError) != 0) events = 0;
    // The set is compared as a whole: a read and a close reported together
    // (never by the POSIX layer) are left to the next pass.
    if (events == FD_READ) {
        // A receive that fails is ignored: the next network event decides.
        if (m_msg.ReceiveMessage(m_pCnx->m_sock) > 0) m_msg.AnalyseFonction(m_pCnx);
    } else if (events == FD_CLOSE) {
        WriteLogF(3, L"ThreadSockClient; socket for connexion = %d is closed. Err = %d",
                  m_pCnx->m_nIdConnexion, closeError);
        CloseCnxSocket(m_pCnx);
        m_pCnx->m_bConnected = 0;
    }
    m_pCnx->m_mutexEnvoi.Unlock();
    if (events == FD_CLOSE) {
        KvnSetEvent(m_pClient->m_hEvtCommModified);
        m_pClient->m_DecConnected();
        // Lets the service finish with the old socket before the re-opening.
        Pause(KVN_PAUSE_AFTER_CLOSE_MS);
    } else if (events != 0 && events != FD_READ) {
        KvnSleep(KVN_PAUSE_ODD_EVENTS_MS);
    }
}

void CThreadSockClient::Reouvre() {
    const int id = m_pCnx->m_nIdConnexion;
    // One connection of the whole process at a time: the service takes the
    // re-openings one by one.
    if (!g_mutexReconnecte.Lock(KVN_TIMEOUT_RECONNECTE_MS)) {
        wchar_t line[64];
        std::swprintf(line, sizeof(line) / sizeof(line[0]),
                      L"\r\ng_mutexReconnecte.Lock error code %d ",
                      static_cast<int>(KvnGetLastError()));
        KvnDebugOutput(line);
        return;
    }
    if (Pause(m_random() % KVN_REOPEN_PAUSE_SPREAD + KVN_REOPEN_PAUSE_MIN_MS)) {
        g_mutexReconnecte.Unlock();
        return;  // asked to end: the next pass sees it
    }

    SOCKET s = Socket_Client(m_szHost, m_pClient->m_nPortHost & 0xFFFF,
                             m_pClient->m_paramComm.nTimeOutConnect, nullptr);
    if (!KvnIsSocketOpen(s)) {
        g_mutexReconnecte.Unlock();
        return;
    }
    // The new socket is in use by this thread alone until it is selected.
    m_pCnx->m_mutexEnvoi.Lock(INFINITE);
    m_pCnx->m_sock = s;
    m_msg.Init(m_pClient->m_nIdApplication, id, s, &m_pClient->m_paramComm);
    if (m_msg.SendReInitConnexion() < 0) {
        CloseCnxSocket(m_pCnx);
        m_pCnx->m_mutexEnvoi.Unlock();
        g_mutexReconnecte.Unlock();
        return;
    }
    WriteLogF(3, L"ThreadSockClient: la socket de la connexion = %d vient de se reconnecter a "
                 L"Korvane",
              id);
    if (m_hSockEvt != nullptr) {
        KvnResetSocketEvent(m_hSockEvt);
        KvnSocketEventSelect(s, m_hSockEvt, FD_READ | FD_CLOSE);
    }
    m_pCnx->m_mutexEnvoi.Unlock();
    KvnSetEvent(m_pClient->m_hEvtCommModified);
    // Up, and counted, in one step. Under g_mutexReconnecte: the order is
    // g_mutexReconnecte, m_mutexConnected, m_mutexAccesList.
    m_pClient->m_IncConnected(m_pCnx);
    g_mutexReconnecte.Unlock();
}

void CThreadSockClient::Fin() {
    // No message to the service: it sees the socket close.
    m_pCnx->m_mutexEnvoi.Lock(INFINITE);
    if (KvnIsSocketOpen(m_pCnx->m_sock)) {
        if (m_hSockEvt != nullptr) {
            m_pCnx->m_hEvtSocket = nullptr;
            KvnCloseSocketEvent(m_hSockEvt);
            m_hSockEvt = nullptr;
        }
        CloseCnxSocket(m_pCnx);
        m_pCnx->m_bConnected = 0;
    }
    m_pCnx->m_mutexEnvoi.Unlock();
    WriteLogF(3, L"ThreadSockClient; fin du thread de la connexion %d", m_pCnx->m_nIdConnexion);
}
