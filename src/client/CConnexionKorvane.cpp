// CConnexionKorvane: construction and destruction of one logical connection.
//
// The socket, the events and the thread are created by GetConnexion; the
// last reference to the connection closes what is left of them.
#include "client/CConnexionKorvane.h"

#include "platform/Kernel.h"
#include "platform/Sockets.h"

CConnexionKorvane::CConnexionKorvane()
    : m_sock(INVALID_SOCKET),
      m_bConnected(FALSE),
      m_nIdConnexion(-1),
      m_hEvtFermeture(INVALID_HANDLE_VALUE),
      m_hEvtEnvoi(INVALID_HANDLE_VALUE),
      msgSended(INVALID_HANDLE_VALUE),
      hEvtResultArrived(INVALID_HANDLE_VALUE),
      m_hEvtReveil(INVALID_HANDLE_VALUE),
      m_hThreadSockClient(nullptr),
      m_hEvtSocket(nullptr),
      m_pMsgAEnvoyer(nullptr),
      m_bMsgSended(FALSE),
      m_nEnvois(0),
      m_dwTickEnvoi(0),
      m_nResultat(0),
      m_nCodeErreur(0),
      m_nNbResultats(0),
      m_nNbParamProc(0),
      m_nRefs(1) {}

CConnexionKorvane::~CConnexionKorvane() {
    // The texts of the result slots are released here, and their pointers
    // cleared, so that the slots' own destructors find nothing left.
    for (int i = 0; i < KVN_NB_PARAM_CNX; ++i) {
        delete[] m_tabParam[i].pszValeur;
        m_tabParam[i].pszValeur = nullptr;
    }
    if (KvnIsHandleOpen(m_hThreadSockClient)) KvnCloseHandle(m_hThreadSockClient);
    m_hThreadSockClient = nullptr;
}

void CConnexionKorvane::Release() {
    if (m_nRefs.fetch_sub(1) != 1) return;
    // Nobody uses the connection any more: its thread has ended (it held a
    // reference), so whatever it left open is closed here.
    SOCKET sock = m_sock.exchange(INVALID_SOCKET);
    if (KvnIsSocketOpen(sock)) KvnCloseSocket(sock);
    KvnCloseHandleIfOpen(m_hEvtFermeture);
    KvnCloseHandleIfOpen(hEvtResultArrived);
    KvnCloseHandleIfOpen(m_hEvtEnvoi);
    KvnCloseHandleIfOpen(msgSended);
    KvnCloseHandleIfOpen(m_hEvtReveil);
    delete this;
}
