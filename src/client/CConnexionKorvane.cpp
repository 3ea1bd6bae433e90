// CConnexionKorvane: construction and destruction of one logical connection.
//
// The socket, the four events and the thread are created by GetConnexion and
// closed by the registry's deletion sequence (Connexions.cpp), not here.
#include "client/CConnexionKorvane.h"

#include "platform/Kernel.h"

CConnexionKorvane::CConnexionKorvane()
    : m_sock(INVALID_SOCKET),
      m_bConnected(FALSE),
      m_nIdConnexion(-1),
      m_hEvtFermeture(INVALID_HANDLE_VALUE),
      m_hEvtEnvoi(INVALID_HANDLE_VALUE),
      msgSended(INVALID_HANDLE_VALUE),
      hEvtResultArrived(INVALID_HANDLE_VALUE),
      m_hThreadSockClient(nullptr),
      m_pMsgAEnvoyer(nullptr),
      m_bMsgSended(FALSE),
      m_nResultat(0),
      m_nCodeErreur(0),
      m_nNbResultats(0),
      m_nNbParamProc(0) {}

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
