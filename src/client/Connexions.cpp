// The logical connections of a client: opening one (GetConnexion), freeing
// one, the registry that the database operations look connections up in, and
// the count of links up that tells when the whole communication is back.
//
// Not for the connection's own thread (ThreadSockClient.cpp) nor for the
// requests run on a connection (src/operations).
//
// Locks: m_mutexGetConnexion before m_mutexAccesList; m_mutexConnected before
// m_mutexAccesList. m_mutexAccesList is recursive for its holder: Free holds
// it while m_DelConnexionList takes it again.
#include <korvane/CKorvaneClient.h>

#include <new>

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

// A new connection's thread has this long to take its parameters; past it
// GetConnexion gives up on the connection.
const DWORD kThreadCnxStartMs = 2000;


// "CKorvaneClient::<member> m_mutexAccesList.Lock() ABANDON", to the log and
// to the debugger output.
void LockAbandon(const wchar_t* member) {
    DStr line;
    line.Printf(L"CKorvaneClient::%ls m_mutexAccesList.Lock() ABANDON", member);
    WriteLog(line, 15);
    KvnDebugOutput(line);
}

// The refusal texts of INIT_CONNEXION, by the code the service answered.
const wchar_t* RefusText(int code) {
    switch (code) {
    case KVN_ERROR_INIT_COMM:
        return L"Korvane a retourne une erreur car il n'a pas pu initialiser la connexion";
    case KVN_ERROR_MAX_CLIENT_ATTEINT:
        return L"Korvane a refuser la connexion car le nombre maximum de connexions simultanes "
               L"est atteint";
    default:
        return L"Korvane a retourne une erreur inconnue lors de la connexion a Korvane";
    }
}

}  // namespace

void CKorvaneClient::m_DetruitConnexion(CConnexionKorvane* cnx, DWORD waitThreadMs) {
    if (cnx == nullptr) return;
    // Requests that still hold the connection find it down.
    cnx->m_bConnected = FALSE;
    if (KvnIsHandleOpen(cnx->m_hThreadSockClient) && KvnIsHandleOpen(cnx->m_hEvtFermeture)) {
        KvnSetEvent(cnx->m_hEvtFermeture);
        // The thread closes the connection's socket as it ends.
        if (KvnWaitForSingleObject(cnx->m_hThreadSockClient, waitThreadMs) != WAIT_OBJECT_0) {
            // Still running: it keeps the connection (it holds a reference)
            // and uses this client; it is waited for before the client goes.
            DStr line;
            line.Printf(L"\r\nCKorvaneClient: le thread de la connexion %d ne s'arrete pas",
                        cnx->m_nIdConnexion);
            KvnDebugOutput(line);
            m_GardeThread(cnx->m_hThreadSockClient);
            cnx->m_hThreadSockClient = nullptr;
        }
    }
    // Whoever lets go last (the thread, an operation in progress, or this)
    // closes what is left open and destroys the object.
    cnx->Release();
}

// ---- Opening and freeing --------------------------------------------------------------

int CKorvaneClient::GetConnexion() {
    m_mutexGetConnexion.Lock(INFINITE);
    int result = KVN_ERROR_UNKNOWN;

    do {
        if (!m_bInit) {
            m_lastError = L"Impossible de créer une connexion car l'application n'est pas "
                          L"connectée au service Korvane";
            break;
        }

        char host[sizeof m_szAdresseHost / sizeof m_szAdresseHost[0]];
        WideToNarrow(host, m_szAdresseHost);
        SOCKET sock = Socket_Client(host, m_nPortHost & 0xFFFF, m_paramComm.nTimeOutConnect, nullptr);
        if (!KvnIsSocketOpen(sock)) {
            m_lastError.Printf(L"Impossible de trouver Korvane a l'adresse %ls port %d",
                               m_szAdresseHost, m_nPortHost);
            break;
        }

        // The handle is given out only once the service has accepted it, so a
        // refusal does not use one up.
        const int idConnexion = m_nNextIdConnexion;
        {
            CMsgSocketClient msg;
            msg.Init(m_nIdApplication, idConnexion, sock, &m_paramComm);
            int r = msg.SendInitConnexion();
            if (r < 0) {
                // The exchange itself failed (-53 nothing sent or not
                // acknowledged, -51 answer unreadable, -2 no application
                // id): its own code is the result, so that the application
                // can tell a dead link from a refusal. m_lastError is left
                // as it was.
                KvnCloseSocket(sock);
                result = r;
                break;
            }
            const int code = msg.GetFonction();
            if (code != KVN_INIT_OK) {
                KvnCloseSocket(sock);
                m_lastError = RefusText(code);
                // The service's own code; a code that is not negative would
                // read as a handle, and is reported as an unknown error.
                result = code < 0 ? code : KVN_ERROR_UNKNOWN;
                m_mutexGetConnexion.Unlock();
                return result;
            }
        }

        CConnexionKorvane* cnx = nullptr;
        try {
            cnx = new (std::nothrow) CConnexionKorvane;
        } catch (...) {
            cnx = nullptr;
        }
        if (cnx == nullptr) {
            m_lastError = L"Erreur systeme: impossible de trouver d'allouer un objet "
                          L"CConnexionKorvane";
            KvnCloseSocket(sock);
            m_mutexGetConnexion.Unlock();
            return KVN_ERROR_UNKNOWN;
        }
        cnx->m_sock = sock;
        cnx->m_bConnected = TRUE;
        cnx->m_nIdConnexion = idConnexion;
        ++m_nNextIdConnexion;

        cnx->m_hEvtFermeture = KvnCreateEvent(TRUE, FALSE);
        cnx->hEvtResultArrived = KvnCreateEvent(FALSE, FALSE);
        cnx->m_hEvtEnvoi = KvnCreateEvent(FALSE, FALSE);
        cnx->msgSended = KvnCreateEvent(FALSE, FALSE);
        cnx->m_hEvtReveil = KvnCreateEvent(FALSE, FALSE);

        // The block is the thread's: it frees it once it has read it, so it
        // stays valid however long the thread takes to start, also after this
        // function has stopped waiting for it. It carries the thread's own
        // reference to the connection.
        CParamThreadCnx* param = nullptr;
        if (cnx->m_hEvtFermeture && cnx->hEvtResultArrived && cnx->m_hEvtEnvoi &&
            cnx->msgSended && cnx->m_hEvtReveil) {
            param = new (std::nothrow) CParamThreadCnx;
        }
        if (param != nullptr) {
            param->pClient = this;
            param->pConnexion = cnx;
            cnx->AddRef();
            KvnResetEvent(m_hEvtThreadCnxStarted);
            cnx->m_hThreadSockClient = KvnBeginThreadEx(&ThreadSockClient, param);
            if (cnx->m_hThreadSockClient == nullptr) {
                delete param;  // no thread will read it
                param = nullptr;
                cnx->Release();
            }
        }
        if (param == nullptr) {
            // No thread could be started: the connection never was usable.
            m_lastError = L"Impossible d'executer le thread de la nouvelle connexion";
            m_DetruitConnexion(cnx, 0);
            break;
        }
        if (!m_AddConnexionList(cnx)) {
            // Not in the registry, no operation could ever find it.
            m_DetruitConnexion(cnx, KvnStopWaitMs(kDelConnexionThreadWaitMs));
            break;
        }

        if (KvnWaitForSingleObject(m_hEvtThreadCnxStarted, kThreadCnxStartMs) != WAIT_OBJECT_0) {
            m_lastError = L"Impossible d'executer le thread de la nouvelle connexion";
            // The deletion closes the socket unless the thread already did.
            m_DelConnexionList(idConnexion);
            break;
        }

        KvnSetEvent(m_hEvtCommModified);
        WriteLogF(3, L"getConnexion OK, handle = %d", idConnexion);
        m_mutexGetConnexion.Unlock();
        // After the unlock: m_IncConnected takes m_mutexAccesList, which
        // comes after m_mutexGetConnexion only when taken inside it.
        m_IncConnected();
        return idConnexion;
    } while (false);

    WriteLogF(3, L"ERREUR %d getConnexion", result);
    m_mutexGetConnexion.Unlock();
    return result;
}

int CKorvaneClient::FreeConnexion(int hCnx) {
    // An operation in progress on the connection ends first, as a second
    // operation would wait for it; past that wait the deletion goes on, and
    // the operation's own reference keeps the object until it returns.
    CCnxRef cnx;
    if (m_mutexAccesList.Lock(kAccesListLockMs)) {
        for (int i = 0; i < m_listConnexion.GetSize() && !cnx; ++i) {
            CConnexionKorvane* c = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
            if (c != nullptr && c->m_nIdConnexion == hCnx) {
                c->AddRef();
                cnx = CCnxRef(c);
            }
        }
        m_mutexAccesList.Unlock();
    }
    const bool held = cnx && cnx->mutexUseCnx.Lock(KVN_TIMEOUT_USE_CNX_MS);
    // No message to the service: it sees the connection's socket close.
    const int deleted = m_DelConnexionList(hCnx);
    if (held) cnx->mutexUseCnx.Unlock();
    if (deleted == 1) {
        // It may have been the last link missing after a loss.
        m_mutexConnected.Lock(INFINITE);
        m_CompteLiens();
        m_mutexConnected.Unlock();
    }
    return deleted == 1 ? KVN_NO_ERROR : KVN_ERROR_UNKNOWN;
}

BOOL CKorvaneClient::IsConnexionConnected(int hCnx) {
    CConnexionKorvane* cnx = m_GetConnexionByIdList(hCnx);
    return cnx ? cnx->m_bConnected.load() : FALSE;
}

// ---- The registry ------------------------------------------------------------------------

int CKorvaneClient::m_AddConnexionList(CConnexionKorvane* cnx) {
    if (cnx == nullptr) return 0;
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_AddConnexionList");
        return 0;
    }
    int added = m_listConnexion.Add(cnx) >= 0 ? 1 : 0;
    m_mutexAccesList.Unlock();
    return added;
}

CConnexionKorvane* CKorvaneClient::m_GetConnexionByIdList(int hCnx, bool bReference) {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_GetConnexionByIdList");
        return nullptr;
    }
    CConnexionKorvane* found = nullptr;
    const int count = m_listConnexion.GetSize();
    for (int i = 0; i < count && found == nullptr; ++i) {
        CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
        if (cnx != nullptr && cnx->m_nIdConnexion == hCnx) found = cnx;
    }
    if (found != nullptr && bReference) found->AddRef();
    m_mutexAccesList.Unlock();

    if (found == nullptr) {
        DStr line;
        line.Printf(L"CKorvaneClient::m_GetConnexionByIdList() connexion %d introuvable  "
                    L"NbCnx=%d    ",
                    hCnx, count);
        WriteLog(line, 3);
        KvnDebugOutput(DStr(L"\r\n") + line);
    }
    return found;
}

CConnexionKorvane* CKorvaneClient::m_GetLastConnexionList() {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_GetLastConnexionList");
        return nullptr;
    }
    CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(0));
    m_mutexAccesList.Unlock();
    return cnx;
}

int CKorvaneClient::m_DelConnexionList(int hCnx) {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_DelConnexionList");
        return 0;
    }
    int index = -1;
    CConnexionKorvane* cnx = nullptr;
    const int count = m_listConnexion.GetSize();
    for (int i = 0; i < count; ++i) {
        cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
        if (cnx != nullptr && cnx->m_nIdConnexion == hCnx) {
            index = i;
            break;
        }
    }
    if (index < 0) {
        m_mutexAccesList.Unlock();
        return 0;
    }
    m_listConnexion.RemoveAt(index);
    m_DetruitConnexion(cnx, KvnStopWaitMs(kDelConnexionThreadWaitMs));
    m_mutexAccesList.Unlock();
    return 1;
}

void CKorvaneClient::m_DeconnecteAllConnexionList() {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_DeconnecteAllConnexionList");
        return;
    }
    const int count = m_listConnexion.GetSize();
    for (int i = 0; i < count; ++i) {
        CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
        if (cnx != nullptr && cnx->m_bConnected) {
            cnx->m_bConnected = FALSE;
            KvnSetEvent(cnx->m_hEvtReveil);
        }
    }
    // Each connection's thread now closes its socket and waits for the main
    // link to come back before re-opening it. A connection opened after this
    // (GetConnexion while the link is down) is not concerned: it is up.
    KvnSetEvent(m_hEvtCommModified);
    m_mutexAccesList.Unlock();
}

void CKorvaneClient::m_ReveilleConnexions() {
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_ReveilleConnexions");
        return;
    }
    for (int i = 0; i < m_listConnexion.GetSize(); ++i) {
        CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
        if (cnx != nullptr && !cnx->m_bConnected) KvnSetEvent(cnx->m_hEvtReveil);
    }
    m_mutexAccesList.Unlock();
}

void CKorvaneClient::m_ClearConnexionList() {
    KvnDebugOutput(L"\r\nm_ClearConnexionList Appelé : Fonction Obsolète     ");
}

// ---- The count of links up -------------------------------------------------------------------
// The main link and each registered connection count as one link each. The
// count is taken afresh from the links themselves, under m_mutexConnected,
// rather than added to and taken from: a connection that closes after a loss
// (the service going away closes them all at once) must not be taken off a
// count that the loss already restarted from nothing, and a connection freed
// while the others re-open must not leave the count one short for good.
// "Every link up" is still told exactly once per recovery: m_bAllConnected
// goes back to 0 only with a loss (or Free), and m_hEvtCommOK is set only when
// it goes to 1.

void CKorvaneClient::m_CompteLiens() {
    const bool principal = m_bSockPrincipaleConnected && m_bAppliInitialisee;
    if (!m_mutexAccesList.Lock(kAccesListLockMs)) {
        LockAbandon(L"m_IncConnected");
        return;
    }
    int up = principal ? 1 : 0;
    const int count = m_listConnexion.GetSize();
    for (int i = 0; i < count; ++i) {
        CConnexionKorvane* cnx = static_cast<CConnexionKorvane*>(m_listConnexion.GetAt(i));
        if (cnx != nullptr && cnx->m_bConnected) ++up;
    }
    m_nNbConnected = up;
    if (!m_bAllConnected && principal && up == count + 1) {
        // The flag first: an application woken by the event must find its
        // requests accepted.
        m_bAllConnected = TRUE;
        KvnSetEvent(m_hEvtCommOK);
    }
    m_mutexAccesList.Unlock();
}

void CKorvaneClient::m_IncConnected() {
    m_mutexConnected.Lock(INFINITE);
    m_CompteLiens();
    m_mutexConnected.Unlock();
}

void CKorvaneClient::m_IncConnected(CConnexionKorvane* cnx) {
    // Up under the lock: a loss marks down exactly the connections up before it.
    m_mutexConnected.Lock(INFINITE);
    cnx->m_bConnected = TRUE;
    m_CompteLiens();
    m_mutexConnected.Unlock();
}

void CKorvaneClient::m_DecConnected() {
    m_mutexConnected.Lock(INFINITE);
    m_CompteLiens();
    m_mutexConnected.Unlock();
}
