// Heartbeat supervision: ThreadHeartBeat and its receiver ThreadUDP.
//
// The service sends a bare 16-byte message header with function code
// KVN_HEART_BEAT as a UDP datagram, to a multicast group or by broadcast, at
// the period it announced when the application registered. ThreadUDP queues
// what arrives; ThreadHeartBeat takes it from the queue, records the time of
// the last heartbeat, tells the application of each one (m_hEvtHB) and
// declares the link lost when the heartbeat stays away longer than the
// announced periods allow. One ThreadHeartBeat runs per lifetime of the main
// link: it ends by itself when the link goes down, and ThreadSockPrincipale
// starts a new one once the link is back.
//
// Not for the heartbeat that the service may also send on the main socket
// (ThreadSockPrincipale counts that one) nor for what a loss sets in motion
// (Notifications.cpp, ThreadSockPrincipale.cpp).
#include "client/ThreadHeartBeat.h"

#include <cwchar>
#include <new>

#include <korvane/CKorvaneClient.h>
#include <korvane/KvnDefs.h>

#include "client/CNewQuillonFifo.h"
#include "client/ClientGlobals.h"
#include "client/ClientThreads.h"
#include "diag/Log.h"
#include "net/Transport.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// A heartbeat is exactly one bare header; anything shorter than a header
// plus one byte is not even queued by the receiver.
const int kTailleHeartBeat = KVN_TAILLE_ENTETE;
const int kTailleMinQueued = 12;
const int kOffsetFonction = 6;
// Larger datagrams are cut by the receive; they are dropped anyway.
const int kTailleMaxDatagramme = 8192;

// How often the time since the last heartbeat is compared with the time-out:
// a loss is declared between the time-out and the time-out plus this.
const DWORD kLossCheckMs = 1000;
// The end sequence: the receive in progress is woken by shutting the socket
// down where the platform allows it; where it does not, closing the socket
// aborts the receive, after this grace.
const DWORD kReceiverGraceMs = 200;
const DWORD kReceiverStopMs = 10000;
// The receiver's pauses: between two receives, and while it has no socket.
const DWORD kReceiverPauseMs = 1;
const DWORD kReceiverIdleMs = 10;
const int kReceiverIdleRounds = 5;

// The block handed to the receiver and the queue it fills, kept together on
// the heap: should the receiver fail to end in time, both are left to it
// rather than freed under its feet.
struct CReceiver {
    CParamUDP param;
    CNewQuillonFifo fifo;
};

// The supervision time-out, nNbPeriodeHB periods of nPeriodeHB ms, kept
// within the range of the 32-bit tick difference it is compared with.
DWORD TimeOutHeartBeat(const CParamComm& p) {
    long long t = static_cast<long long>(p.nNbPeriodeHB) * static_cast<long long>(p.nPeriodeHB);
    if (t < 0) return 0;
    if (t > 0x7FFFFFFFLL) return 0x7FFFFFFFu;
    return static_cast<DWORD>(t);
}

// Wakes the receiver, waits for it to end and releases what it used. Returns
// once the receiver has ended or the wait has timed out.
void StopReceiver(CReceiver* rx) {
    CParamUDP& p = rx->param;
    p.bRun = FALSE;
    SOCKET s = p.sock.load();
    // Shutting down leaves the socket's number reserved, so a receive that
    // starts late cannot land on another socket that took the number; the
    // socket is closed once the receiver has ended.
    if (KvnIsSocketOpen(s)) KvnShutdown(s);
    DWORD r = KvnWaitForSingleObject(p.hThreadStopped, kReceiverGraceMs);
    if (r != WAIT_OBJECT_0) {
        s = p.sock.exchange(INVALID_SOCKET);
        if (KvnIsSocketOpen(s)) KvnCloseSocket(s);
        r = KvnWaitForSingleObject(p.hThreadStopped, kReceiverStopMs);
    }
    if (r != WAIT_OBJECT_0) {
        KvnDebugOutput(L"\r\nThreadHeartBeat : Wait TimeOut 10000 on paramUDP.hThreadStopped");
        // The receiver may still set its event and queue one more block.
        return;
    }
    s = p.sock.exchange(INVALID_SOCKET);
    if (KvnIsSocketOpen(s)) KvnCloseSocket(s);
    KvnCloseHandle(p.hThreadStopped);
    delete rx;
}

}  // namespace

void ThreadUDP(void* arg) {
    CParamUDP* p = static_cast<CParamUDP*>(arg);
    if (p == nullptr) return;
    KvnResetEvent(p->hThreadStopped);

    SOCKET s = KvnUdpSocket();
    if (!KvnIsSocketOpen(s)) {
        KvnDebugOutput(L"\nErreur Creation Thread IP ");
    } else {
        p->sock = s;
        // Several clients of the machine listen to the same heartbeat port.
        KvnSetSocketOption(s, KVN_SO_REUSEADDR, 1);
        // A failed bind leaves the socket unbound: the heartbeat then simply
        // does not arrive, and the supervision never declares a loss.
        if (KvnBind(s, KVN_ADDR_ANY, static_cast<unsigned short>(p->nPort & 0xFFFF)) == 0 &&
            p->nMode == KVN_UDP_MODE_MULTICAST) {
            char groupe[sizeof p->szAdresseGroupe / sizeof p->szAdresseGroupe[0]];
            WideToNarrow(groupe, p->szAdresseGroupe);
            if (KvnJoinMulticastGroup(s, KvnInetAddr(groupe)) != 0) {
                wchar_t line[64];
                std::swprintf(line, sizeof line / sizeof line[0],
                              L"\r\nErreur dans IP_ADD_MEMBERSHIP %d", KvnSocketError());
                KvnDebugOutput(line);
            }
        }
    }

    BYTE* buffer = new (std::nothrow) BYTE[kTailleMaxDatagramme];
    while (p->bRun) {
        KvnSleep(kReceiverPauseMs);
        SOCKET cur = p->sock.load();
        if (KvnIsSocketOpen(cur) && buffer != nullptr) {
            int n = KvnRecvFrom(cur, reinterpret_cast<char*>(buffer), kTailleMaxDatagramme);
            if (n > kTailleMinQueued && p->bRun) {
                p->pFifoIn->AddFifo(buffer, n);
            } else if (n < 0) {
                // A socket that keeps failing (never bound, or gone) must not
                // turn this loop into a spin.
                KvnSleep(kReceiverIdleMs);
            }
        } else {
            for (int i = 0; i < kReceiverIdleRounds && p->bRun; ++i) KvnSleep(kReceiverIdleMs);
        }
    }
    delete[] buffer;
    // The socket is ThreadHeartBeat's to close. Nothing of p is touched
    // after this: ThreadHeartBeat releases it as soon as it sees the event.
    KvnSetEvent(p->hThreadStopped);
}

unsigned ThreadHeartBeat(void* arg) {
    CKorvaneClient* pClient = static_cast<CKorvaneClient*>(arg);
    if (pClient == nullptr) return 0;
    KvnSetThreadPriorityBelowNormal();

    CReceiver* rx = new (std::nothrow) CReceiver;
    if (rx == nullptr) return 0;
    // The opening of the link this supervisor watches: once it is gone, so is
    // the supervisor, and a late heartbeat of it is no loss of the next one.
    const int generation = pClient->m_nLienGeneration;
    const CParamComm param = pClient->m_paramComm;
    const DWORD timeOut = TimeOutHeartBeat(param);
    pClient->m_dwLastHeartBeat = KvnGetTickCount();

    // The address has room for 20 characters; one that fills it has lost its
    // terminator, hence its end, when the service's answer was taken over.
    const size_t room = sizeof param.szAdresseHB / sizeof param.szAdresseHB[0];
    size_t longueur = 0;
    while (longueur < room && param.szAdresseHB[longueur] != L'\0') ++longueur;
    if (longueur >= room) {
        KvnDebugOutput(L"\r\n\r\nThreadHeartBeat : PARAMETRES ERRONES   Client=0   \r\n ");
        delete rx;
        return 0;
    }

    CParamUDP& udp = rx->param;
    udp.bRun = TRUE;
    udp.hThreadStopped = KvnCreateEvent(TRUE, FALSE);
    udp.pFifoIn = &rx->fifo;
    udp.szAdresseGroupe[0] = L'\0';
    if (param.bMulticastHB != 0) std::wcscpy(udp.szAdresseGroupe, param.szAdresseHB);
    udp.nPort = param.nPortHB;
    udp.nMode = param.bMulticastHB != 0 ? KVN_UDP_MODE_MULTICAST : KVN_UDP_MODE_BROADCAST;
    udp.sock = INVALID_SOCKET;
    const bool receiver = udp.hThreadStopped != nullptr && KvnBeginThread(ThreadUDP, &udp);

    // The stop event first: a stop wins over a datagram waiting in the queue.
    // A loss declared elsewhere sets "down": this supervisor's link is gone,
    // and the main link's thread starts a new one once it is back.
    HANDLE waits[3] = {pClient->m_hEvtStopThreads, pClient->m_hEvtLienPrincipalDown,
                       rx->fifo.GetEventNotEmpty()};
    const DWORD nbWaits = waits[2] != nullptr ? 3 : 2;
    bool seen = false;  // no loss can be declared before a first heartbeat
    DWORD lastCheck = KvnGetTickCount();
    for (;;) {
        // A block still queued is taken at once; otherwise the wait ends with
        // the next datagram, a stop, a loss, or the next loss check.
        DWORD wait = INFINITE;
        if (rx->fifo.GetSize() > 0) {
            wait = 0;
        } else if (seen) {
            const DWORD since = KvnGetTickCount() - lastCheck;
            wait = since >= kLossCheckMs ? 0 : kLossCheckMs - since;
        }
        const DWORD r = KvnWaitForMultipleObjects(nbWaits, waits, wait);
        if (r == WAIT_OBJECT_0 || r == WAIT_OBJECT_0 + 1 || r == WAIT_FAILED) break;
        if (!pClient->m_bSockPrincipaleConnected || pClient->m_nLienGeneration != generation) break;

        int len = 0;
        const BYTE* block = rx->fifo.GetFifo(len);
        if (block != nullptr) {
            if (len != kTailleHeartBeat) {
                WriteLogF(2, L"Erreur recvfrom code %d", KvnSocketError());
            } else if (static_cast<signed char>(block[kOffsetFonction]) == KVN_HEART_BEAT) {
                g_mutexHeartBeat.Lock(INFINITE);
                pClient->m_dwLastHeartBeat = KvnGetTickCount();
                g_mutexHeartBeat.Unlock();
                seen = true;
                WriteLogF(5, L"Receive HB de %ls", pClient->m_szAdresseHost);
                KvnSetEvent(pClient->m_hEvtHB);
            }
        }

        // Compared on the clock rather than on idle passes, so that a stream
        // of datagrams that are not heartbeats cannot hide a loss.
        const DWORD now = KvnGetTickCount();
        if (!seen || now - lastCheck < kLossCheckMs) continue;
        lastCheck = now;
        if (now - pClient->m_dwLastHeartBeat.load() > timeOut) {
            pClient->m_NotifyComLost(generation);
            WriteLogF(2,
                      L"Korvane a l'adresse %ls n'a pas envoye de message de vie ==> perte de "
                      L"communication",
                      pClient->m_szAdresseHost);
            break;
        }
    }

    if (receiver) {
        StopReceiver(rx);
    } else {
        if (udp.hThreadStopped != nullptr) KvnCloseHandle(udp.hThreadStopped);
        delete rx;
    }
    return 0;
}
