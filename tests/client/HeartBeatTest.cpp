// The heartbeat supervision on its own: a ThreadHeartBeat started on a client
// whose main link is marked up, fed by UDP datagrams on loopback. What the
// application sees: m_hEvtHB for each heartbeat, a loss when the heartbeats
// stop, nothing at all when none ever came, and nothing for datagrams that are
// not heartbeats.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>

#include "client/ClientThreads.h"
#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"
#include "support/HeartBeatSender.h"
#include "support/TestUtil.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;

// The client, with its main link marked up and the heartbeat thread started
// by hand, as Init would.
class Supervised : public CKorvaneClient {
public:
    void Start(unsigned short port, int periodeMs, int nbPeriodes, int multicast = 0,
               const wchar_t* adresse = L"") {
        m_paramComm.nPortHB = port;
        m_paramComm.nPeriodeHB = periodeMs;
        m_paramComm.nNbPeriodeHB = nbPeriodes;
        m_paramComm.bMulticastHB = multicast;
        for (size_t i = 0; i < 20; ++i) {
            m_paramComm.szAdresseHB[i] = adresse[i];
            if (adresse[i] == L'\0') break;
        }
        m_bSockPrincipaleConnected = TRUE;
        m_bAppliInitialisee = TRUE;
        m_SignaleLienPrincipal();
        m_hThreadHeartBeat = KvnBeginThreadEx(ThreadHeartBeat, this);
    }
    HANDLE Thread() const { return m_hThreadHeartBeat; }
    bool Ended(DWORD timeoutMs) {
        return KvnWaitForSingleObject(m_hThreadHeartBeat, timeoutMs) == WAIT_OBJECT_0;
    }
    // As m_CloseThreads asks it: the stop event, then the wait.
    bool Stop(DWORD timeoutMs) {
        KvnSetEvent(m_hEvtStopThreads);
        bool ended = Ended(timeoutMs);
        KvnResetEvent(m_hEvtStopThreads);
        return ended;
    }
    void MarkLinkDown() {
        m_bSockPrincipaleConnected = FALSE;
        m_SignaleLienPrincipal();
    }
    DWORD LastHeartBeat() const { return m_dwLastHeartBeat; }
    void SetLastHeartBeat(DWORD t) { m_dwLastHeartBeat = t; }
};

bool IsSet(HANDLE event, DWORD timeoutMs = 0) {
    return KvnWaitForSingleObject(event, timeoutMs) == WAIT_OBJECT_0;
}

// Lines written to the log's trace channel and to the debugger output.
struct Lines {
    std::mutex lock;
    std::vector<std::wstring> texts;
    static void Hook(const wchar_t* text, void* context) {
        Lines* self = static_cast<Lines*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->texts.push_back(text);
    }
    int Count(const wchar_t* part) {
        std::lock_guard<std::mutex> guard(lock);
        int n = 0;
        for (const auto& t : texts)
            if (t.find(part) != std::wstring::npos) ++n;
        return n;
    }
};

class HeartBeat : public ::testing::Test {
protected:
    void SetUp() override {
        SockInitWinSock();
        port_ = FreeUdpPort();
        ASSERT_NE(0, port_);
        sender_.reset(new HeartBeatSender(port_));
    }
    void TearDown() override {
        if (client_->Thread() != nullptr) {
            EXPECT_TRUE(client_->Stop(2000));
        }
        client_.reset();
        sender_.reset();
        SockCloseWinSock();
    }

    // A heartbeat goes out until the client has seen one: the receiver may
    // not be bound yet when the first goes out.
    bool FirstHeartBeat() {
        for (int i = 0; i < 50; ++i) {
            sender_->SendHeartBeat();
            if (IsSet(client_->GetEventHB(), 100)) return true;
        }
        return false;
    }

    unsigned short port_ = 0;
    std::unique_ptr<HeartBeatSender> sender_;
    std::unique_ptr<Supervised> client_{new Supervised};
};

TEST_F(HeartBeat, EachHeartbeatSetsTheEventAndRefreshesTheTimeOfLife) {
    client_->Start(port_, 100, 10);
    ASSERT_TRUE(FirstHeartBeat());

    client_->SetLastHeartBeat(KvnGetTickCount() - 100000);
    ASSERT_TRUE(sender_->SendHeartBeat());
    EXPECT_TRUE(IsSet(client_->GetEventHB(), 2000));
    EXPECT_LT(KvnGetTickCount() - client_->LastHeartBeat(), 2000u);

    // A steady heartbeat keeps the link: no loss over several time-outs.
    sender_->Start(100);
    EXPECT_FALSE(IsSet(client_->GetEventPerteComm(), 2000));
    EXPECT_TRUE(client_->IsAppliConnected());
    EXPECT_TRUE(IsSet(client_->GetEventHB()));
    sender_->Stop();
}

TEST_F(HeartBeat, HeartbeatsThatStopCauseALossWithinTheTimeOutPlusASecond) {
    // Time-out: 10 periods of 100 ms (a loaded machine may hold a heartbeat
    // back for a few hundred ms).
    client_->Start(port_, 100, 10);
    ASSERT_TRUE(FirstHeartBeat());
    sender_->Start(100);
    EXPECT_FALSE(IsSet(client_->GetEventPerteComm(), 1500));
    sender_->Stop();
    const Clock::time_point stopped = Clock::now();

    ASSERT_TRUE(IsSet(client_->GetEventPerteComm(), 5000));
    const long long elapsed = MsSince(stopped);
    EXPECT_GE(elapsed, 900) << "not before the time-out";
    EXPECT_LE(elapsed, 2500) << "within the time-out plus about a second";
    EXPECT_FALSE(client_->IsAppliConnected());
    // The supervisor of the lost link ends by itself.
    EXPECT_TRUE(client_->Ended(2000));
}

TEST_F(HeartBeat, NoLossIsDeclaredWhenNoHeartbeatEverCame) {
    client_->Start(port_, 50, 2);
    EXPECT_FALSE(IsSet(client_->GetEventPerteComm(), 2500));
    EXPECT_FALSE(IsSet(client_->GetEventHB()));
    EXPECT_TRUE(client_->IsAppliConnected());
    EXPECT_FALSE(client_->Ended(0)) << "still listening";
}

TEST_F(HeartBeat, DatagramsThatAreNotAHeartbeatAreIgnored) {
    Lines lines;
    KvnSetTraceFileHook(&Lines::Hook, &lines);
    const int level = g_logLevel.exchange(2);

    client_->Start(port_, 100, 50);
    ASSERT_TRUE(FirstHeartBeat());
    const DWORD old = KvnGetTickCount() - 100000;
    client_->SetLastHeartBeat(old);

    peer::Bytes hb = HeartBeatDatagram();
    peer::Bytes twelve(hb.begin(), hb.begin() + 12);
    peer::Bytes thirteen(hb.begin(), hb.begin() + 13);
    peer::Bytes seventeen = hb;
    seventeen.push_back(0);
    peer::Bytes otherCode = hb;
    otherCode[6] = 4;  // a header of the right size with another function code
    for (const peer::Bytes* d : {&twelve, &thirteen, &seventeen, &otherCode}) {
        ASSERT_TRUE(sender_->Send(*d));
    }
    // The blocks of the wrong length are logged as they are dropped; the
    // others leave no trace.
    for (int i = 0; i < 100 && lines.Count(L"Erreur recvfrom code") < 2; ++i) KvnSleep(20);
    KvnSleep(200);
    EXPECT_EQ(2, lines.Count(L"Erreur recvfrom code")) << "13 and 17 bytes; 12 never queued";
    EXPECT_FALSE(IsSet(client_->GetEventHB()));
    EXPECT_EQ(old, client_->LastHeartBeat());

    // The receiver is still there: the next heartbeat counts.
    ASSERT_TRUE(sender_->SendHeartBeat());
    EXPECT_TRUE(IsSet(client_->GetEventHB(), 2000));
    EXPECT_NE(old, client_->LastHeartBeat());

    g_logLevel.store(level);
    KvnSetTraceFileHook(nullptr, nullptr);
}

TEST_F(HeartBeat, AGroupAddressWithoutRoomForItsEndStopsTheSupervision) {
    Lines lines;
    KvnSetDebugOutputHook(&Lines::Hook, &lines);
    client_->Start(port_, 100, 5, 1, L"239.255.255.255.1234567");  // 20 characters kept
    EXPECT_TRUE(client_->Ended(2000));
    EXPECT_EQ(1, lines.Count(L"ThreadHeartBeat : PARAMETRES ERRONES   Client=0"));
    sender_->SendHeartBeat();
    EXPECT_FALSE(IsSet(client_->GetEventHB(), 300));
    KvnSetDebugOutputHook(nullptr, nullptr);
}

TEST_F(HeartBeat, AMulticastSupervisorStillTakesHeartbeatsSentToItsPort) {
    // Joining the group may fail on a machine without a multicast route; the
    // receiver listens on its port either way.
    client_->Start(port_, 100, 5, 1, L"239.255.42.99");
    EXPECT_TRUE(FirstHeartBeat());
}

TEST_F(HeartBeat, TheSupervisorEndsPromptlyWhenTheLinkGoesDownOrWhenStopped) {
    client_->Start(port_, 100, 5);
    ASSERT_TRUE(FirstHeartBeat());
    Clock::time_point start = Clock::now();
    client_->MarkLinkDown();
    EXPECT_TRUE(client_->Ended(2000));
    EXPECT_LT(MsSince(start), 1000) << "the blocked receive is woken";
    EXPECT_FALSE(IsSet(client_->GetEventPerteComm())) << "a loss seen elsewhere is not declared again";

    Supervised other;
    other.Start(port_, 100, 5);
    KvnSleep(100);
    start = Clock::now();
    EXPECT_TRUE(other.Stop(2000));
    EXPECT_LT(MsSince(start), 1000);
}

}  // namespace
