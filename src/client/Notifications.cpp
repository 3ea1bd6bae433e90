// Notifications to the application: the event getters, the posting of the
// registered messages, and m_NotifyComLost, the one routine that every loss
// of the main link goes through.
//
// Not for deciding that the link is lost (the main socket thread, the
// heartbeat and the request frame do that) nor for re-opening it.
#include <korvane/CKorvaneClient.h>

#include "client/ClientGlobals.h"
#include "platform/Kernel.h"
#include "platform/Messages.h"
#include "platform/Sockets.h"

void PostNotification(HWND hWnd, UINT msg) {
    if (hWnd == nullptr || msg == 0) return;
    KvnPostMessage(hWnd, msg, 0, 0);
}

HANDLE CKorvaneClient::GetEventPerteComm() { return m_hEvtPerteComm; }
HANDLE CKorvaneClient::GetEventCommOK() { return m_hEvtCommOK; }
HANDLE CKorvaneClient::GetEventCommModified() { return m_hEvtCommModified; }
HANDLE CKorvaneClient::GetEventHB() { return m_hEvtHB; }
HANDLE CKorvaneClient::GetEventWarningFermetureForcee() { return m_hEvtWarningFermetureForcee; }
HANDLE CKorvaneClient::GetEventFermetureForcee() { return m_hEvtFermetureForcee; }
HANDLE CKorvaneClient::GetEventKorvaneClosed() { return m_hEvtKorvaneClosed; }

// Runs on whichever thread saw the loss, possibly on several at once for the
// same loss (the main socket closing, the connections' sockets closing under
// requests, the heartbeat): under m_mutexConnected, only the first finds the
// link up, and the loss is announced once.
void CKorvaneClient::m_NotifyComLost(int nGeneration) {
    m_mutexConnected.Lock(INFINITE);
    const bool up = m_bSockPrincipaleConnected && m_bAppliInitialisee;
    if (!up || (nGeneration >= 0 && nGeneration != m_nLienGeneration)) {
        m_mutexConnected.Unlock();
        return;
    }
    m_SetLienPrincipal(FALSE);
    // The main socket is its thread's to close: shutting it down wakes that
    // thread, and its number cannot go to another socket meanwhile (the
    // thread closes it under this lock).
    const SOCKET sock = m_sockPrincipale;
    if (KvnIsSocketOpen(sock)) KvnShutdown(sock);

    // During a shutdown the connections are being deleted: they are left to
    // it rather than marked down under its feet.
    if (KvnWaitForSingleObject(m_hEvtStopThreads, 0) != WAIT_OBJECT_0) {
        m_DeconnecteAllConnexionList();
    }
    m_nNbConnected = 0;
    m_bAllConnected = FALSE;

    // The application first, then the requests in flight, which give up at
    // once instead of waiting for their answers.
    KvnSetEvent(m_hEvtPerteComm);
    KvnSetEvent(m_hEvtPerteCommInterne);
    PostNotification(m_hWnd, g_nMsgPerteComm);
    m_mutexConnected.Unlock();
}

void CKorvaneClient::m_SetLienPrincipal(BOOL bUp) {
    m_bSockPrincipaleConnected = bUp;
    m_bAppliInitialisee = bUp;
    if (bUp) KvnResetEvent(m_hEvtLienPrincipalDown);
    else KvnSetEvent(m_hEvtLienPrincipalDown);
}
