// CConnexionKorvane: one logical database connection of a CKorvaneClient: its
// socket, the events of the request hand-off between the application's
// threads and the connection's own thread, the values of the last answer and
// the rows of the current select.
//
// Created only by CKorvaneClient::GetConnexion. It lives as long as someone
// uses it: the registry, the connection's thread, and every operation in
// progress on it hold a reference (CCnxRef); the last one to let go closes
// what is still open (socket, events, thread handle) and destroys it, so
// that neither FreeConnexion nor a thread that is slow to end can free it
// under a request.
#ifndef KORVANE_CLIENT_CCONNEXIONKORVANE_H
#define KORVANE_CLIENT_CCONNEXIONKORVANE_H

#include <atomic>

#include <korvane/CMsgSocketClient.h>
#include <korvane/CParam.h>
#include <korvane/CSelectBuffer.h>
#include <korvane/platform/CMutex.h>
#include <korvane/platform/KvnTypes.h>

class CKorvaneClient;

#define KVN_NB_PARAM_CNX 128      // result values and bound parameters
#define KVN_NB_PARAM_PROC_MAX 64  // stored-procedure parameters

class CConnexionKorvane {
public:
    CConnexionKorvane();
    ~CConnexionKorvane();

    CConnexionKorvane(const CConnexionKorvane&) = delete;
    CConnexionKorvane& operator=(const CConnexionKorvane&) = delete;

    void AddRef() { m_nRefs.fetch_add(1); }
    // The last reference closes the socket, the events and the thread handle
    // that are still open, and deletes the object.
    void Release();

    // Fields written by the connection's thread and read by the application's
    // threads (and the other way round) are atomic; the events order the rest.
    std::atomic<SOCKET> m_sock;
    std::atomic<BOOL> m_bConnected;
    int m_nIdConnexion;
    HANDLE m_hEvtFermeture;     // manual reset: asks the thread to end
    HANDLE m_hEvtEnvoi;         // auto reset: a request was handed over
    HANDLE msgSended;           // auto reset: the request was sent and acknowledged
    HANDLE hEvtResultArrived;   // auto reset: the answer has been stored
    // auto reset: the connection's state was changed from outside its thread
    // (marked down by a loss, or the main link back while it is down)
    HANDLE m_hEvtReveil;
    HANDLE m_hThreadSockClient;
    // The socket event of the connection's thread, which a caller borrows to
    // exchange its request itself; guarded by m_mutexEnvoi, null once the
    // thread has ended.
    HANDLE m_hEvtSocket;
    CMsgSocketClient* m_pMsgAEnvoyer; // lent by the caller; guarded by m_mutexEnvoi
    std::atomic<BOOL> m_bMsgSended;
    // The acknowledged sends so far, and the tick count of the last one
    // (written first): a caller tells that its own request went out by the
    // count moving, and its answer wait counts from that tick.
    std::atomic<unsigned> m_nEnvois;
    std::atomic<DWORD> m_dwTickEnvoi;
    std::atomic<int> m_nResultat;
    std::atomic<int> m_nCodeErreur;
    std::atomic<int> m_nNbResultats;
    CParam m_tabParam[KVN_NB_PARAM_CNX];
    CSelectBuffer m_selectBuffer;
    int m_nNbParamProc;
    CParamProc m_tabParamProc[KVN_NB_PARAM_PROC_MAX];
    CMutex mutexUseCnx;         // one database operation at a time
    // Guards m_pMsgAEnvoyer, the socket and its event: held by whoever sends,
    // receives on, closes or replaces the socket.
    CMutex m_mutexEnvoi;

private:
    std::atomic<int> m_nRefs;
};

// A reference to a connection for the length of a scope (an operation).
class CCnxRef {
public:
    CCnxRef() : m_pCnx(nullptr) {}
    // Takes over a reference already counted for it.
    explicit CCnxRef(CConnexionKorvane* counted) : m_pCnx(counted) {}
    ~CCnxRef() {
        if (m_pCnx) m_pCnx->Release();
    }
    CCnxRef(CCnxRef&& other) noexcept : m_pCnx(other.m_pCnx) { other.m_pCnx = nullptr; }
    CCnxRef& operator=(CCnxRef&& other) noexcept {
        if (this != &other) {
            if (m_pCnx) m_pCnx->Release();
            m_pCnx = other.m_pCnx;
            other.m_pCnx = nullptr;
        }
        return *this;
    }
    CCnxRef(const CCnxRef&) = delete;
    CCnxRef& operator=(const CCnxRef&) = delete;

    CConnexionKorvane* get() const { return m_pCnx; }
    CConnexionKorvane* operator->() const { return m_pCnx; }
    explicit operator bool() const { return m_pCnx != nullptr; }

private:
    CConnexionKorvane* m_pCnx;
};

// The block that GetConnexion hands to a new ThreadSockClient, with a
// reference to the connection counted for the thread.
struct CParamThreadCnx {
    CKorvaneClient* pClient;
    CConnexionKorvane* pConnexion;
};

#endif
