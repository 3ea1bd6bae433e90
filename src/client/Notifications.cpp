// Notifications to the application: the event getters, the posting of the
// registered messages, and m_NotifyComLost, the one routine that every loss
// of the main link goes through.
//
// Not for deciding that the link is lost (the main socket thread, the
// heartbeat and the request frame do that) nor for re-opening it.
#include <mutex>

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

// Runs on whichever thread saw the loss, possibly on two at once for the same
// loss: the socket is taken out of the field before it is closed, so that it
// is closed once; the events and the message simply follow twice.
void CKorvaneClient::m_NotifyComLost() {
    SOCKET sock = m_sockPrincipale.exchange(INVALID_SOCKET);
    if (sock != 0 && sock != INVALID_SOCKET) KvnCloseSocket(sock);

    m_nNbConnected = 0;
    m_bSockPrincipaleConnected = FALSE;
    m_bAppliInitialisee = FALSE;

    // During a shutdown the connections are being deleted: they are left to
    // it rather than marked down under its feet.
    if (KvnWaitForSingleObject(m_hEvtStopThreads, 0) != WAIT_OBJECT_0) {
        m_DeconnecteAllConnexionList();
    }
    // Wakes the main link's thread (to re-open it), ThreadHeartBeat (to end)
    // and the connections' threads (to close their sockets).
    m_SignaleLienPrincipal();
    m_bAllConnected = FALSE;

    // The application first, then the requests in flight, which give up at
    // once instead of waiting for their answers.
    KvnSetEvent(m_hEvtPerteComm);
    KvnSetEvent(m_hEvtPerteCommInterne);
    PostNotification(m_hWnd, g_nMsgPerteComm);
}

// Serialised, so that the last call leaves the events as the flags were last
// left; within a call "down" is set before "up" is reset and the other way
// round, so that a waiter never finds both reset.
void CKorvaneClient::m_SignaleLienPrincipal() {
    static std::mutex serialise;
    std::lock_guard<std::mutex> lock(serialise);
    if (m_bSockPrincipaleConnected && m_bAppliInitialisee) {
        KvnSetEvent(m_hEvtLienPrincipalUp);
        KvnResetEvent(m_hEvtLienPrincipalDown);
    } else {
        KvnSetEvent(m_hEvtLienPrincipalDown);
        KvnResetEvent(m_hEvtLienPrincipalUp);
    }
}
