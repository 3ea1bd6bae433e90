// What the tests of the session, the connections and the supervision share:
// the client with its insides within reach, a recorder of log and debugger
// lines, and bounded waits.
#ifndef KVN_TESTS_CLIENT_CLIENTPROBE_H
#define KVN_TESTS_CLIENT_CLIENTPROBE_H

#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>
#include <korvane/platform/NotifyWindow.h>

#include "client/CConnexionKorvane.h"
#include "client/ClientThreads.h"
#include "client/ClientTimings.h"
#include "diag/Log.h"
#include "peer/ScriptedPeer.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace probe {

class Client : public CKorvaneClient {
public:
    using CKorvaneClient::m_GetLastConnexionList;
    using CKorvaneClient::m_IncConnected;
    using CKorvaneClient::m_NotifyComLost;
    int Open(unsigned short port, HWND hWnd = nullptr, const wchar_t* name = L"Compta",
             int portLoader = 0) {
        int dbType = 0;
        return Init(L"127.0.0.1", port, portLoader, name, dbType, 0, nullptr, hWnd);
    }
    int IdApplication() const { return m_nIdApplication; }
    int NbConnected() const { return m_nNbConnected; }
    bool AllConnected() const { return m_bAllConnected != FALSE; }
    int NbRegistered() { return m_listConnexion.GetSize(); }
    CConnexionKorvane* Connexion(int hCnx) { return m_GetConnexionByIdList(hCnx); }
    HANDLE PerteCommInterne() const { return m_hEvtPerteCommInterne; }
    HANDLE StopEvent() const { return m_hEvtStopThreads; }
    DWORD LastHeartBeat() const { return m_dwLastHeartBeat; }
    void SetLastHeartBeat(DWORD t) { m_dwLastHeartBeat = t; }
    bool MainLinkUp() const { return m_bSockPrincipaleConnected != FALSE; }
    SOCKET MainSocket() const { return m_sockPrincipale; }
    // The lock under which the link's state changes (and the main socket is
    // closed by its thread).
    CMutex& StateLock() { return m_mutexConnected; }
    CMutex& ListLock() { return m_mutexAccesList; }
    // What a loss of the main link, then its return, do to the connections,
    // without the main link's own thread.
    void SetMainLink(bool up) {
        m_mutexConnected.Lock(INFINITE);
        m_SetLienPrincipal(up ? TRUE : FALSE);
        if (up) {
            ++m_nLienGeneration;
            m_ReveilleConnexions();
        } else {
            m_DeconnecteAllConnexionList();
        }
        m_mutexConnected.Unlock();
    }
    // Marks the main link up and starts the heartbeat supervision by hand.
    void StartHeartBeat(unsigned short port, int periodeMs, int nbPeriodes, int multicast = 0,
                        const wchar_t* adresse = L"") {
        m_paramComm.nPortHB = port;
        m_paramComm.nPeriodeHB = periodeMs;
        m_paramComm.nNbPeriodeHB = nbPeriodes;
        m_paramComm.bMulticastHB = multicast;
        std::wcsncpy(m_paramComm.szAdresseHB, adresse, 20);  // no terminator when 20 or more
        SetMainLink(true);
        m_hThreadHeartBeat = KvnBeginThreadEx(ThreadHeartBeat, this);
    }
    HANDLE HeartBeatThread() const { return m_hThreadHeartBeat; }
};

inline bool IsSet(HANDLE event, DWORD timeoutMs = 0) {
    return KvnWaitForSingleObject(event, timeoutMs) == WAIT_OBJECT_0;
}

// The answer wait, and every wait for a thread to end, cut short for the
// length of a test.
struct ShortAnswerWait {
    explicit ShortAnswerWait(DWORD ms) { KvnSetAnswerWaitForTests(ms); }
    ~ShortAnswerWait() { KvnSetAnswerWaitForTests(0); }
};
struct ShortStopWaits {
    explicit ShortStopWaits(DWORD ms) { KvnSetStopWaitsForTests(ms); }
    ~ShortStopWaits() { KvnSetStopWaitsForTests(0); }
};

using kvntest::ClosedPort;
using kvntest::WaitUntil;

// A service that turns the application away with one value, the reason.
inline void RefuseApplication(peer::Connection& c) {
    peer::Message m = c.Expect(KVN_INIT_APPLICATION);
    if (!m.complete) return;
    c.Ack(m);
    c.Answer(peer::Msg(KVN_INIT_APPLICATION, 0, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
    c.ExpectClientClose();
}

// Lines handed to the trace file and the debugger output while it lives.
struct Recorder : kvntest::CapturedTexts {
    Recorder() {
        KvnSetTraceFileHook(&Hook, this);
        KvnSetDebugOutputHook(&Hook, this);
    }
    ~Recorder() {
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnSetDebugOutputHook(nullptr, nullptr);
        KvnResetLogForTests();
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
};

// WinSock for the length of a test.
struct WinSock {
    WinSock() { SockInitWinSock(); }
    ~WinSock() { SockCloseWinSock(); }
};

// The application's window, which the registered messages are posted to.
struct Window {
    HWND h = KvnCreateNotifyWindow();
    ~Window() { KvnDestroyNotifyWindow(h); }
    // The next message posted (0 when none came in time), which carries no
    // parameter.
    UINT Next(DWORD timeoutMs = 1000) {
        UINT msg = 0;
        WPARAM wParam = 0;
        LPARAM lParam = 0;
        if (!KvnWaitNotifyMessage(h, timeoutMs, &msg, &wParam, &lParam)) return 0;
        EXPECT_EQ(0u, wParam);
        EXPECT_EQ(0, lParam);
        return msg;
    }
};

}  // namespace probe

#endif
