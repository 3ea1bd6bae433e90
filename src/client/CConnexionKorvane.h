// CConnexionKorvane: one logical database connection of a CKorvaneClient: its
// socket, the events of the request hand-off between the application's
// threads and the connection's own thread, the values of the last answer and
// the rows of the current select.
//
// Created only by CKorvaneClient::GetConnexion and destroyed only by the
// registry's deletion sequence, which closes the socket and the events first.
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

    // Fields written by the connection's thread and read by the application's
    // threads (and the other way round) are atomic; the events order the rest.
    std::atomic<SOCKET> m_sock;
    std::atomic<BOOL> m_bConnected;
    int m_nIdConnexion;
    HANDLE m_hEvtFermeture;     // manual reset: asks the thread to end
    HANDLE m_hEvtEnvoi;         // auto reset: a request was handed over
    HANDLE msgSended;           // auto reset: the request was sent and acknowledged
    HANDLE hEvtResultArrived;   // auto reset: the answer has been stored
    HANDLE m_hThreadSockClient;
    CMsgSocketClient* m_pMsgAEnvoyer; // lent by the caller; guarded by m_mutexEnvoi
    std::atomic<BOOL> m_bMsgSended;
    std::atomic<int> m_nResultat;
    std::atomic<int> m_nCodeErreur;
    std::atomic<int> m_nNbResultats;
    CParam m_tabParam[KVN_NB_PARAM_CNX];
    CSelectBuffer m_selectBuffer;
    int m_nNbParamProc;
    CParamProc m_tabParamProc[KVN_NB_PARAM_PROC_MAX];
    CMutex mutexUseCnx;         // one database operation at a time
    CMutex m_mutexEnvoi;        // guards m_pMsgAEnvoyer and its send
};

// The block that GetConnexion hands to a new ThreadSockClient.
struct CParamThreadCnx {
    CKorvaneClient* pClient;
    CConnexionKorvane* pConnexion;
};

#endif
