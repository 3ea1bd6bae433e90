// ThreadSockPrincipale: owns the application's main link once Init has
// opened it. It receives what the service pushes on the main socket (a
// KVN_HEART_BEAT there counts as a sign of life), notices the socket closing,
// and re-opens the link after any loss: it reconnects after short random
// pauses, wakes the service loader now and then, re-registers the application
// (REINIT_APPLICATION, or a full INIT_APPLICATION after five refusals),
// restarts ThreadHeartBeat and tells the application the link is back. The
// connections follow by themselves once the main link is up
// (ThreadSockClient.cpp).
//
// Not for declaring losses seen elsewhere (ThreadHeartBeat.cpp, the request
// frame) nor for what a loss does (Notifications.cpp).
#include <cstdint>
#include <ctime>
#include <new>
#include <random>

#include <korvane/CKorvaneClient.h>
#include <korvane/CMsgSocketClient.h>
#include <korvane/KvnDefs.h>

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

// The pause before each attempt: ten slices, so that the random spread of the
// clients that lost the service together is fine-grained. After a loss that
// this thread saw on the main socket the count of failures starts at 5, which
// makes the first attempt come after 0.5 to 1 s; after a loss reported by
// someone else (heartbeat, request) it starts at 0 and the pause is 3 to 4 s,
// which leaves the service time to recover from whatever made it late.
const int kPauseSlices = 10;
const unsigned kSliceFirstMinMs = 300;
const unsigned kSliceFirstSpread = 101;  // 300 to 400 ms
const unsigned kSliceMinMs = 50;
const unsigned kSliceSpread = 51;  // 50 to 100 ms
// A loss seen on the main socket itself: the service went away for good
// reason, so the attempts start at the quick pace at once.
const int kEchecsApresFermeture = 5;
// Every tenth failed connect wakes the service loader instead of connecting.
const int kEchecsParReveilLoader = 10;
// After a failed connect, on top of the next pause.
const DWORD kPauseApresEchecMs = 1000;
// After a refused registration: 1 to 3000 ms, so that clients refused
// together do not come back together.
const unsigned kPauseRefusSpread = 3000;
// Five REINIT_APPLICATION refusals in a row: the service no longer knows the
// application; it is registered anew with INIT_APPLICATION.
const int kRefusAvantInit = 5;
// After a network-event set that is neither a read nor a close alone.
const DWORD kPauseEvenementsMs = 20;
// The ThreadHeartBeat of a lost link ends within about 10 ms of the loss,
// unless its receiver is slow to stop (up to 10 s): it is waited for before a
// new one starts, and at the end of this thread.
const DWORD kAttenteHeartBeatMs = 20000;

}  // namespace

// The state of one ThreadSockPrincipale, for the length of the thread.
class CThreadSockPrincipale {
public:
    CThreadSockPrincipale(CKorvaneClient* client, CMsgSocketClient* msgInit,
                          CMsgSocketClient* msgRecu);
    void Run();

private:
    enum Suite { kSuite, kFin };

    Suite Reouvre();
    void TraiteSocket(SOCKET s);
    void RedemarreHeartBeat();
    // Waits up to ms, less when the thread is asked to end. True when it is.
    bool Pause(DWORD ms);
    bool StopDemande(DWORD ms);
    void Fin();

    CKorvaneClient* m_pClient;
    CMsgSocketClient* m_pMsgInit;   // INIT/REINIT_APPLICATION
    CMsgSocketClient* m_pMsgRecu;   // what the service pushes on the main socket
    char m_szHost[sizeof(CKorvaneClient::m_szAdresseHost) / sizeof(wchar_t)];
    int m_nEchecs;  // failed connects since the link was last up
    int m_nRefus;   // refused registrations since the link was last up
    int m_nGeneration;  // the opening of the link this thread watches
    // A generator of the thread's own: the application's rand() sequence is
    // left alone.
    std::minstd_rand m_random;
};

unsigned ThreadSockPrincipale(void* arg) {
    CKorvaneClient* client = static_cast<CKorvaneClient*>(arg);
    if (client == nullptr) return 0;
    WriteLog(L"Demarrage ThreadSockPrincipale", 3);

    CMsgSocketClient* msgInit = new (std::nothrow) CMsgSocketClient;
    CMsgSocketClient* msgRecu = new (std::nothrow) CMsgSocketClient;
    if (msgInit == nullptr || msgRecu == nullptr) {
        WriteLog(L"ThreadSockClient: erreur, impossible d'allouer un objet CMsgSocketClient", 2);
        delete msgInit;
        delete msgRecu;
        return 0;
    }
    CThreadSockPrincipale thread(client, msgInit, msgRecu);
    thread.Run();
    delete msgInit;
    delete msgRecu;
    return 0;
}

CThreadSockPrincipale::CThreadSockPrincipale(CKorvaneClient* client, CMsgSocketClient* msgInit,
                                             CMsgSocketClient* msgRecu)
    : m_pClient(client),
      m_pMsgInit(msgInit),
      m_pMsgRecu(msgRecu),
      m_nEchecs(0),
      m_nRefus(0),
      m_nGeneration(client->m_nLienGeneration) {
    m_pMsgRecu->SetParamComm(&client->m_paramComm);
    // Init cuts the host to the field, terminator included.
    WideToNarrow(m_szHost, client->m_szAdresseHost);
    m_random.seed(static_cast<unsigned>(std::time(nullptr)) ^ KvnGetTickCount() ^
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(client)));
}

bool CThreadSockPrincipale::StopDemande(DWORD ms) {
    return KvnWaitForSingleObject(m_pClient->m_hEvtStopSockPrincipale, ms) == WAIT_OBJECT_0;
}

bool CThreadSockPrincipale::Pause(DWORD ms) { return StopDemande(ms); }

void CThreadSockPrincipale::Run() {
    CKorvaneClient* c = m_pClient;
    for (;;) {
        if (!c->m_bSockPrincipaleConnected) {
            // The socket of the lost link is this thread's to close, whoever
            // declared the loss (they only shut it down).
            c->m_FermeSockPrincipale();
            if (Reouvre() == kFin) break;
        }
        if (StopDemande(0)) break;
        const SOCKET s = c->m_sockPrincipale;
        HANDLE evt = c->m_hWsaEvtPrincipale;
        if (!KvnIsSocketOpen(s) || evt == nullptr) {
            // Up without a socket to watch: only the loss is waited for.
            HANDLE waits[2] = {c->m_hEvtStopSockPrincipale, c->m_hEvtLienPrincipalDown};
            if (KvnWaitForMultipleObjects(2, waits, INFINITE) != WAIT_OBJECT_0 + 1) break;
            continue;
        }
        // The stop event first: a stop wins over data waiting. Then a loss
        // declared by another thread (heartbeat, request), which also shuts
        // the socket down: it is not taken for a close seen here.
        HANDLE waits[3] = {c->m_hEvtStopSockPrincipale, c->m_hEvtLienPrincipalDown, evt};
        const DWORD r = KvnWaitForMultipleObjects(3, waits, INFINITE);
        if (r == WAIT_OBJECT_0) break;
        if (r == WAIT_OBJECT_0 + 2) {
            TraiteSocket(s);
        } else if (r != WAIT_OBJECT_0 + 1) {
            KvnSleep(kPauseEvenementsMs);
        }
    }
    Fin();
}

void CThreadSockPrincipale::TraiteSocket(SOCKET s) {
    CKorvaneClient* c = m_pClient;
    long events = 0;
    int closeError = 0;
    if (KvnEnumNetworkEvents(s, c->m_hWsaEvtPrincipale, &events, &closeError) != 0) {
        KvnSleep(kPauseEvenementsMs);
        return;
    }
    // The set is compared as a whole: a read and a close reported together
    // (never by the POSIX layer) are left to the next pass.
    if (events == FD_READ) {
        // Free may have exchanged CLOSE_APPLICATION on this socket meanwhile
        // (it holds m_mutexConnected for that) and taken the acknowledgement
        // that woke this thread: where the system tells every waiter (sockets
        // that cannot be lent), a read now would wait out a header's budget.
        c->m_mutexConnected.Lock(INFINITE);
        const bool nothing = KvnPendingBytes(s) == 0;
        c->m_mutexConnected.Unlock();
        if (nothing) return;
        WriteLog(L"ThreadSockClient; data sur sock principale", 4);
        // Acknowledged by the receive; only a heartbeat means something here,
        // and a receive that fails is ignored.
        if (m_pMsgRecu->ReceiveMessage(s) > 0 && m_pMsgRecu->GetFonction() == KVN_HEART_BEAT) {
            g_mutexHeartBeat.Lock(INFINITE);
            c->m_dwLastHeartBeat = KvnGetTickCount();
            g_mutexHeartBeat.Unlock();
        }
        m_pMsgRecu->ClearMessage();
    } else if (events == FD_CLOSE) {
        WriteLogF(3, L"ThreadSockPrincipale: MAIN socket loose is connexion with Korvane. Err = %d",
                  closeError);
        m_nEchecs = kEchecsApresFermeture;
        c->m_NotifyComLost(m_nGeneration);
    } else if (events != 0) {
        KvnSleep(kPauseEvenementsMs);
    }
}

CThreadSockPrincipale::Suite CThreadSockPrincipale::Reouvre() {
    CKorvaneClient* c = m_pClient;
    KvnDebugOutput(L"\r\npClient->m_bSockPrincipaleConnected == FALSE  ");

    if (m_nEchecs > 0 && m_nEchecs % kEchecsParReveilLoader == 0) {
        // The service may be down for good: ask its loader to start it. This
        // pass makes no attempt; the next one comes after the usual pause.
        c->m_SendToServiceLoader(m_szHost, c->m_nPortServiceLoader);
        ++m_nEchecs;
        return kSuite;
    }

    for (int i = 0; i < kPauseSlices; ++i) {
        const unsigned slice = m_nEchecs == 0 ? m_random() % kSliceFirstSpread + kSliceFirstMinMs
                                              : m_random() % kSliceSpread + kSliceMinMs;
        if (Pause(slice)) return kFin;
    }

    SOCKET s = Socket_Client(m_szHost, c->GetPortHost(), c->m_paramComm.nTimeOutConnect, nullptr);
    if (!KvnIsSocketOpen(s)) {
        ++m_nEchecs;
        return Pause(kPauseApresEchecMs) ? kFin : kSuite;
    }
    // Not up yet: no loss can be declared on it, nobody else touches it.
    c->m_sockPrincipale = s;
    if (StopDemande(1)) {
        KvnDebugOutput(L"\r\nThreadPrincipal INTERROMPU EN COURS (1)   ");
        return kFin;  // the end closes the socket
    }

    m_pMsgInit->Init(c->m_nIdApplication, 0, s, &c->m_paramComm);
    m_pMsgRecu->SetParamComm(&c->m_paramComm);

    c->m_mutexReInit.Lock(INFINITE);
    const int r = m_nRefus >= kRefusAvantInit
                      ? m_pMsgInit->SendInitApplication(c->m_szNomApplication)
                      : m_pMsgInit->SendReInitApplication(c->m_szNomApplication);
    if (r != KVN_NO_ERROR) {
        ++m_nRefus;
        c->m_FermeSockPrincipale();
        const bool stop = Pause(m_random() % kPauseRefusSpread + 1);
        c->m_mutexReInit.Unlock();
        return stop ? kFin : kSuite;
    }
    if (StopDemande(1)) {
        KvnDebugOutput(L"\r\nThreadPrincipal INTERROMPU EN COURS (2)   ");
        c->m_mutexReInit.Unlock();
        return kFin;
    }

    WriteLog(L"ThreadSockPrincipale: l'application vient de se reconnecter a Korvane", 3);
    // The socket event made by Init is bound to the new socket.
    if (c->m_hWsaEvtPrincipale == nullptr) c->m_hWsaEvtPrincipale = KvnCreateSocketEvent();
    if (c->m_hWsaEvtPrincipale != nullptr) {
        KvnResetSocketEvent(c->m_hWsaEvtPrincipale);
        KvnSocketEventSelect(s, c->m_hWsaEvtPrincipale, FD_READ | FD_CLOSE);
    }
    WriteLog(L"Connexion socket principale avec Korvane OK", 3);
    m_nEchecs = 0;
    m_nRefus = 0;
    // The link is up, and the application told, in one step: a loss declared
    // from now on is this link's, and is announced after this.
    c->m_mutexConnected.Lock(INFINITE);
    // After a full INIT_APPLICATION the service may have given a new id; the
    // connections re-open under it from here on.
    c->m_nIdApplication = m_pMsgInit->GetIdApplication();
    c->m_SetLienPrincipal(TRUE);
    m_nGeneration = ++c->m_nLienGeneration;
    c->m_CompteLiens();
    KvnResetEvent(c->m_hEvtPerteCommInterne);
    // The connections that are down re-open now.
    c->m_ReveilleConnexions();
    PostNotification(c->m_hWnd, g_nMsgCommOK);
    c->m_mutexConnected.Unlock();
    RedemarreHeartBeat();
    // Only Init takes the communication parameters over; the database type
    // follows the service the link now leads to.
    c->m_nDBType = m_pMsgInit->GetDBType();
    c->m_mutexReInit.Unlock();
    return kSuite;
}

void CThreadSockPrincipale::RedemarreHeartBeat() {
    CKorvaneClient* c = m_pClient;
    HANDLE old = c->m_hThreadHeartBeat.exchange(nullptr);
    if (KvnIsHandleOpen(old)) {
        // It ended by itself when the link went down; two supervisors of one
        // link must never run at once. One that is slow to end belongs to a
        // link that is gone, and ends without declaring anything.
        if (KvnWaitForSingleObject(old, KvnStopWaitMs(kAttenteHeartBeatMs)) == WAIT_OBJECT_0)
            KvnCloseHandle(old);
        else
            c->m_GardeThread(old);
    }
    KvnDebugOutput(L"\r\n\r\nThreadHeartBeat Créé par ThreadSockPrincipale    ");
    c->m_hThreadHeartBeat = KvnBeginThreadEx(ThreadHeartBeat, c);
}

void CThreadSockPrincipale::Fin() {
    CKorvaneClient* c = m_pClient;
    c->m_mutexConnected.Lock(INFINITE);
    c->m_bSockPrincipaleConnected = FALSE;
    KvnSetEvent(c->m_hEvtLienPrincipalDown);
    c->m_mutexConnected.Unlock();
    if (KvnIsSocketOpen(c->m_sockPrincipale)) {
        if (c->m_hWsaEvtPrincipale != nullptr) KvnCloseSocketEvent(c->m_hWsaEvtPrincipale);
        c->m_hWsaEvtPrincipale = nullptr;
        c->m_FermeSockPrincipale();
    }

    HANDLE hb = c->m_hThreadHeartBeat;
    if (hb != nullptr) {
        if (KvnWaitForSingleObject(hb, KvnStopWaitMs(kAttenteHeartBeatMs)) == WAIT_TIMEOUT) {
            KvnDebugOutput(L"\r\nEnd ThreadSockPrincipale Wait TimeOut 20000 on m_hThreadHeartBeat");
        } else if (c->m_hThreadHeartBeat.compare_exchange_strong(hb, nullptr)) {
            KvnCloseHandle(hb);
        }
    }
    WriteLog(L"Fin de ThreadSockPrincipale", 3);
}
