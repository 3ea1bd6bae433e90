// CKorvaneClient: the client object and the application session over the
// main link: construction and destruction, Init, Free, the stopping of the
// background threads, the small accessors and the wake-up of the service
// loader.
//
// Not for the logical connections (Connexions.cpp), the notifications
// (Notifications.cpp), the result codes (ResultCodes.cpp) nor the threads'
// own bodies.
#include <korvane/CKorvaneClient.h>

#include <cwchar>

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

// Init tries the main link this many times when a service loader can start
// the service, pausing after each failure so that the service has time to
// come up.
const int kInitConnectAttempts = 3;
const DWORD kInitConnectPauseMs = 5000;
// Init gives the threads it started a moment to settle before the
// application's first request.
const DWORD kInitSettleMs = 10;

// The loader is a plain listener: a short connect, and a tiny send that
// either goes out at once or not at all.
const int kLoaderConnectMs = 5000;
const DWORD kLoaderSendMs = 500;

// Free lets CLOSE_APPLICATION reach the service before the connections'
// sockets close.
const DWORD kFreeAfterCloseMs = 20;

// Stop waits: ThreadHeartBeat and each connection's thread are given 30 s
// (kCloseThreadsCnxWaitMs); the main socket thread, which may itself be
// waiting for ThreadHeartBeat, a little more.
const DWORD kHeartBeatStopMs = 30000;
const DWORD kSockPrincipaleStopMs = 40000;

// Copies at most room - 1 characters of src (null reads as empty) and
// terminates: a longer host or application name is cut, not refused.
void CopyCut(wchar_t* dst, size_t room, const wchar_t* src) {
    size_t n = 0;
    if (src != nullptr) {
        while (n + 1 < room && src[n] != L'\0') {
            dst[n] = src[n];
            ++n;
        }
    }
    dst[n] = L'\0';
}

// The sentence that Init keeps for a failed registration, by its result;
// null for a result that has none.
const wchar_t* InitErrorText(int r) {
    switch (r) {
    case KVN_ERROR_INIT_NB_PARAM:
        return L"Korvane n'a pas retourné un message d'initialisation correct";
    case KVN_ERROR_MAX_CLIENT_ATTEINT:
        return L"Korvane a refusé la connexion car le nombre maximum de clients simultanes est "
               L"atteint";
    case KVN_ERROR_SOCKET_CLOSED:
        return L"Erreur lors de l'envoi du message d'initialisation, la socket est fermee";
    case KVN_ERROR_SEND:
        return L"Erreur lors de l'envoi du message d'initialisation vers Korvane";
    case KVN_ERROR_RECEIVE:
        return L"Erreur lors de la reception du message d'initialisation retourne par Korvane";
    default:
        return nullptr;
    }
}

}  // namespace

CKorvaneClient::CKorvaneClient()
    : m_hWnd(nullptr),
      m_dwLastHeartBeat(KvnGetTickCount()),
      m_nPortHost(5151),
      m_nPortServiceLoader(0),
      m_sockPrincipale(0),
      m_bSockPrincipaleConnected(FALSE),
      m_bAppliInitialisee(FALSE),
      m_hWsaEvtPrincipale(nullptr),
      m_nIdApplication(0),
      m_bInit(FALSE),
      m_hThreadSockPrincipale(nullptr),
      m_hThreadHeartBeat(nullptr),
      m_nNbConnected(0),
      m_nNextIdConnexion(1),
      m_bAllConnected(FALSE),
      m_nDBType(0),
      m_nLienGeneration(0) {
    m_hEvtPerteComm = KvnCreateEvent(FALSE, FALSE);
    m_hEvtCommOK = KvnCreateEvent(FALSE, FALSE);
    m_hEvtCommModified = KvnCreateEvent(FALSE, FALSE);
    m_hEvtHB = KvnCreateEvent(FALSE, FALSE);
    m_hEvtWarningFermetureForcee = KvnCreateEvent(FALSE, FALSE);
    m_hEvtFermetureForcee = KvnCreateEvent(FALSE, FALSE);
    m_hEvtKorvaneClosed = KvnCreateEvent(FALSE, FALSE);
    m_hEvtPerteCommInterne = KvnCreateEvent(TRUE, FALSE);
    m_hEvtLienPrincipalDown = KvnCreateEvent(TRUE, TRUE);
    m_hEvtStopThreads = KvnCreateEvent(TRUE, FALSE);
    m_hEvtStopSockPrincipale = KvnCreateEvent(TRUE, FALSE);
    m_hEvtThreadCnxStarted = KvnCreateEvent(FALSE, FALSE);
    std::wcscpy(m_szAdresseHost, L"127.0.0.1");
    m_szNomApplication[0] = L'\0';
}

CKorvaneClient::~CKorvaneClient() {
    Free();
    m_AttendThreadsRestants();
    KvnCloseHandleIfOpen(m_hEvtStopThreads);
    KvnCloseHandleIfOpen(m_hEvtStopSockPrincipale);
    KvnCloseHandleIfOpen(m_hEvtPerteComm);
    KvnCloseHandleIfOpen(m_hEvtCommOK);
    KvnCloseHandleIfOpen(m_hEvtCommModified);
    KvnCloseHandleIfOpen(m_hEvtHB);
    KvnCloseHandleIfOpen(m_hEvtWarningFermetureForcee);
    KvnCloseHandleIfOpen(m_hEvtFermetureForcee);
    KvnCloseHandleIfOpen(m_hEvtKorvaneClosed);
    KvnCloseHandleIfOpen(m_hEvtThreadCnxStarted);
    KvnCloseHandleIfOpen(m_hEvtPerteCommInterne);
    KvnCloseHandleIfOpen(m_hEvtLienPrincipalDown);
    if (KvnIsHandleOpen(m_hWsaEvtPrincipale)) KvnCloseSocketEvent(m_hWsaEvtPrincipale);
    m_hWsaEvtPrincipale = nullptr;
    FreeLog();
}

// ---- The session --------------------------------------------------------------------------

int CKorvaneClient::Init(const wchar_t* host, int port, int portServiceLoader,
                         const wchar_t* nomApplication, int& dbType, int logLevel,
                         const wchar_t* logPath, HWND hWnd) {
    CMsgSocketClient msg;

    // The previous session's threads read the host, the port, the name and
    // the window: they are stopped before any of these changes. The end of
    // that session is still told to the window given now.
    m_FreeSession(hWnd);
    m_AttendThreadsRestants();
    KvnResetEvent(m_hEvtStopThreads);
    KvnResetEvent(m_hEvtStopSockPrincipale);
    m_hWnd = hWnd;
    CopyCut(m_szAdresseHost, sizeof m_szAdresseHost / sizeof m_szAdresseHost[0], host);
    m_nPortHost = port;
    m_nPortServiceLoader = portServiceLoader;
    CopyCut(m_szNomApplication, sizeof m_szNomApplication / sizeof m_szNomApplication[0],
            nomApplication);

    // Once per process, by the first client that asks for a log. Without a
    // file name nothing is ever logged: the threshold stays 0.
    if (logLevel > 0) {
        int expected = 0;
        if (g_bLogInitialise.compare_exchange_strong(expected, 1) && logPath != nullptr) {
            InitLog(logLevel, logPath, 1);
        }
    }

    char narrowHost[sizeof m_szAdresseHost / sizeof m_szAdresseHost[0]];
    WideToNarrow(narrowHost, m_szAdresseHost);

    // Without a loader nobody can start the service: one attempt only. With
    // one, the loader is woken once and the service given time to start.
    SOCKET sock = INVALID_SOCKET;
    for (int attempt = 0; attempt < kInitConnectAttempts; ++attempt) {
        sock = Socket_Client(narrowHost, m_nPortHost & 0xFFFF, m_paramComm.nTimeOutConnect,
                             nullptr);
        if (KvnIsSocketOpen(sock)) break;
        if (m_nPortServiceLoader <= 0) break;
        if (attempt == 0) {
            if (!m_SendToServiceLoader(narrowHost, m_nPortServiceLoader)) break;
            KvnDebugOutput(L"\r\nCKorvaneClient::Init Sleep(5000)  (1)");
        } else {
            KvnDebugOutput(L"\r\nCKorvaneClient::Init Sleep(5000)    (2)");
        }
        KvnSleep(kInitConnectPauseMs);
    }
    if (!KvnIsSocketOpen(sock)) {
        m_lastError.Printf(L"Impossible de trouver Korvane a l'adresse %ls port %d",
                           m_szAdresseHost, m_nPortHost);
        return KVN_ERROR_UNKNOWN;
    }
    m_sockPrincipale = sock;

    if (KvnIsHandleOpen(m_hWsaEvtPrincipale)) KvnCloseSocketEvent(m_hWsaEvtPrincipale);
    m_hWsaEvtPrincipale = KvnCreateSocketEvent();
    if (m_hWsaEvtPrincipale != nullptr) {
        KvnResetSocketEvent(m_hWsaEvtPrincipale);
        KvnSocketEventSelect(sock, m_hWsaEvtPrincipale, FD_READ | FD_CLOSE);
    }
    msg.Init(0, 0, sock, &m_paramComm);
    m_bSockPrincipaleConnected = TRUE;
    m_bAppliInitialisee = FALSE;

    // The name as kept (cut to the buffer), so that INIT and every later
    // REINIT name the application alike.
    int r = msg.SendInitApplication(m_szNomApplication);
    if (r >= 0 && msg.GetFonction() == KVN_INIT_OK && msg.GetIdApplication() <= 0) {
        // An acceptance without an application id is no registration the
        // session could go on with: it counts as a malformed answer.
        r = KVN_ERROR_INIT_NB_PARAM;
    }
    if (r >= 0 && msg.GetFonction() == KVN_INIT_OK) {
        msg.GetParamComm(&m_paramComm);
        dbType = msg.GetDBType();
        m_nDBType = dbType;
        m_nIdApplication = msg.GetIdApplication();
        // Before the threads start: they take a set "down" for a loss.
        m_mutexConnected.Lock(INFINITE);
        m_SetLienPrincipal(TRUE);
        ++m_nLienGeneration;
        // What a loss of the previous session left set is no loss of this one.
        KvnResetEvent(m_hEvtPerteCommInterne);
        m_mutexConnected.Unlock();
        // The main link is supervised from here on: ThreadSockPrincipale
        // owns it and re-opens it after a loss, ThreadHeartBeat watches the
        // service's heartbeat. m_CloseThreads stops both.
        m_hThreadSockPrincipale = KvnBeginThreadEx(ThreadSockPrincipale, this);
        m_hThreadHeartBeat = KvnBeginThreadEx(ThreadHeartBeat, this);
        m_bInit = TRUE;
        WriteLogF(3, L"Init OK, Korvane a retourne un id Application = %d",
                  m_nIdApplication.load());
        PostNotification(m_hWnd, g_nMsgCommOK);
        m_IncConnected();  // the main link is the first link up
        KvnSleep(kInitSettleMs);
        return KVN_NO_ERROR;
    }

    // The detail goes to the log; the application only sees -2. The socket
    // stays open until the next Free.
    if (GetLogLevel() >= 3) {
        if (const wchar_t* text = InitErrorText(r)) m_lastError = text;
        WriteLogF(3, L"ERREUR %d Init: %ls", r, m_lastError.GetString());
    }
    return KVN_ERROR_UNKNOWN;
}

void CKorvaneClient::Free() { m_FreeSession(m_hWnd); }

void CKorvaneClient::m_FreeSession(HWND hWndNotice) {
    // The main socket is its thread's: the lock keeps the thread from closing
    // it (and its number from going to another socket) during this send.
    m_mutexConnected.Lock(INFINITE);
    const SOCKET sock = m_sockPrincipale;
    const bool open = KvnIsSocketOpen(sock);
    if (open) {
        // The acknowledgement is this exchange's: where the socket can be
        // lent, ThreadSockPrincipale is not woken by it, and never waits for
        // a message whose bytes were read here. (Its event is made by Init
        // and is only replaced once the thread has ended.)
        HANDLE evt = m_hWsaEvtPrincipale;
        const bool lent = evt != nullptr && KvnLendSocketEvent(evt);
        CMsgSocketClient msg;
        msg.Init(m_nIdApplication, 0, sock, &m_paramComm);
        msg.SendCloseApplication();
        if (lent) KvnReturnSocketEvent(evt);
    }
    m_mutexConnected.Unlock();
    if (open) {
        KvnSleep(kFreeAfterCloseMs);

        if (!m_mutexAccesList.Lock(kFreeAccesListLockMs)) {
            WriteLog(L"CKorvaneClient::Free m_mutexAccesList.Lock() ABANDON", 15);
            KvnDebugOutput(L"CKorvaneClient::Free m_mutexAccesList.Lock() ABANDON");
            return;
        }
        for (int i = m_listConnexion.GetSize() - 1; i >= 0; --i) {
            CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
            if (cnx != nullptr) m_DelConnexionList(cnx->m_nIdConnexion);
        }
        m_mutexAccesList.Unlock();

        m_bInit = FALSE;
        m_mutexConnected.Lock(INFINITE);
        if (m_bAllConnected) KvnSetEvent(m_hEvtPerteComm);
        m_bAllConnected = FALSE;
        m_nNbConnected = 0;  // no link is up any more
        PostNotification(hWndNotice, g_nMsgPerteComm);
        m_mutexConnected.Unlock();
    }
    m_CloseThreads();
}

void CKorvaneClient::m_CloseThreads() {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        WriteLog(L"CKorvaneClient::m_CloseThreads m_mutexAccesList.Lock() ABANDON", 15);
        KvnDebugOutput(L"CKorvaneClient::m_CloseThreads m_mutexAccesList.Lock() ABANDON");
        KvnSetEvent(m_hEvtStopThreads);
        return;
    }
    // Ends ThreadHeartBeat and every ThreadSockClient.
    KvnSetEvent(m_hEvtStopThreads);

    HANDLE heartBeat = m_hThreadHeartBeat.exchange(nullptr);
    if (heartBeat != nullptr &&
        KvnWaitForSingleObject(heartBeat, KvnStopWaitMs(kHeartBeatStopMs)) == WAIT_TIMEOUT) {
        KvnDebugOutput(L"\r\nCKorvaneClient::CloseThreads Wait TimeOut 10000 on  m_hThreadHeartBeat");
        m_GardeThread(heartBeat);
        heartBeat = nullptr;
    }
    KvnCloseHandleIfOpen(heartBeat);

    for (int i = 0; i < m_listConnexion.GetSize(); ++i) {
        m_DetruitConnexion(static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i)),
                           KvnStopWaitMs(kCloseThreadsCnxWaitMs));
    }
    m_listConnexion.RemoveAll();

    bool sockPrincipaleLibre = true;
    if (m_hThreadSockPrincipale != nullptr) {
        KvnSetEvent(m_hEvtStopSockPrincipale);
        if (KvnWaitForSingleObject(m_hThreadSockPrincipale,
                                   KvnStopWaitMs(kSockPrincipaleStopMs)) == WAIT_TIMEOUT) {
            KvnDebugOutput(
                L"\r\nCKorvaneClient::CloseThreads Wait TimeOut 40000 on m_hThreadSockPrincipale");
            m_GardeThread(m_hThreadSockPrincipale);
            m_hThreadSockPrincipale = nullptr;
            sockPrincipaleLibre = false;
        }
    }
    // The main socket thread may have started a supervisor of a link it
    // re-opened meanwhile; it ends on the stop event.
    heartBeat = m_hThreadHeartBeat.exchange(nullptr);
    if (heartBeat != nullptr &&
        KvnWaitForSingleObject(heartBeat, KvnStopWaitMs(kHeartBeatStopMs)) == WAIT_TIMEOUT) {
        m_GardeThread(heartBeat);
        heartBeat = nullptr;
    }
    KvnCloseHandleIfOpen(heartBeat);

    // A later Init can start threads again; a thread that outlived its wait
    // still has to see them (Init resets them once it has ended).
    m_mutexThreadsRestants.Lock(INFINITE);
    if (m_listThreadsRestants.GetSize() == 0) {
        KvnResetEvent(m_hEvtStopThreads);
        KvnResetEvent(m_hEvtStopSockPrincipale);
    }
    m_mutexThreadsRestants.Unlock();

    KvnCloseHandleIfOpen(m_hThreadSockPrincipale);

    m_mutexAccesList.Unlock();

    // The main socket thread closes the main socket as it ends; when there is
    // none (a refused Init leaves the socket open) it is closed here, so that
    // no session outlives Free. After the registry: m_mutexConnected comes
    // first.
    if (sockPrincipaleLibre) {
        m_FermeSockPrincipale();
        if (KvnIsHandleOpen(m_hWsaEvtPrincipale)) KvnCloseSocketEvent(m_hWsaEvtPrincipale);
        m_hWsaEvtPrincipale = nullptr;
        m_mutexConnected.Lock(INFINITE);
        m_SetLienPrincipal(FALSE);
        m_mutexConnected.Unlock();
    }
}

void CKorvaneClient::m_FermeSockPrincipale() {
    m_mutexConnected.Lock(INFINITE);
    const SOCKET sock = m_sockPrincipale.exchange(INVALID_SOCKET);
    m_mutexConnected.Unlock();
    if (KvnIsSocketOpen(sock)) KvnCloseSocket(sock);
}

void CKorvaneClient::m_GardeThread(HANDLE hThread) {
    if (!KvnIsHandleOpen(hThread)) return;
    m_mutexThreadsRestants.Lock(INFINITE);
    if (m_listThreadsRestants.Add(hThread) < 0) {
        // Out of memory: waited for here, as nothing else could.
        m_mutexThreadsRestants.Unlock();
        KvnWaitForSingleObject(hThread, INFINITE);
        KvnCloseHandle(hThread);
        return;
    }
    m_mutexThreadsRestants.Unlock();
}

void CKorvaneClient::m_AttendThreadsRestants() {
    for (;;) {
        m_mutexThreadsRestants.Lock(INFINITE);
        const int n = m_listThreadsRestants.GetSize();
        HANDLE h = n > 0 ? m_listThreadsRestants.GetAt(n - 1) : nullptr;
        if (n > 0) m_listThreadsRestants.RemoveAt(n - 1);
        m_mutexThreadsRestants.Unlock();
        if (h == nullptr) return;
        // It has been told to end: it does once its current step is over.
        KvnWaitForSingleObject(h, INFINITE);
        KvnCloseHandle(h);
    }
}

// ---- Accessors -------------------------------------------------------------------------

int CKorvaneClient::GetPortHost() { return m_nPortHost; }

void CKorvaneClient::GetAdresseHost(wchar_t* buffer) {
    if (buffer != nullptr) std::wcscpy(buffer, m_szAdresseHost);
}

BOOL CKorvaneClient::IsAppliConnected() { return m_bSockPrincipaleConnected; }

int CKorvaneClient::GetDBType() { return m_nDBType; }

int CKorvaneClient::m_GetIdApplication() { return m_nIdApplication; }

// ---- The service loader ----------------------------------------------------------------

// Asks the loader next to the service to start it: "GO", no answer read.
// 1 when something was sent (a socket error counts as sent: the loader may
// have got it), 0 when the loader cannot be reached or took nothing.
int CKorvaneClient::m_SendToServiceLoader(const char* host, int port) {
    SOCKET sock = Socket_Client(host, port & 0xFFFF, kLoaderConnectMs, nullptr);
    if (!KvnIsSocketOpen(sock)) return 0;
    static const char kGo[2] = {'G', 'O'};
    int sent = SockSend(sock, kGo, sizeof kGo, kLoaderSendMs);
    KvnCloseSocket(sock);
    return sent == 0 ? 0 : 1;
}
