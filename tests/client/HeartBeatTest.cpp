// The heartbeat supervision on its own: a ThreadHeartBeat started on a client
// whose main link is marked up, fed by UDP datagrams on loopback.
#include <memory>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "support/HeartBeatSender.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using probe::IsSet;

class HeartBeat : public ::testing::Test {
protected:
    void SetUp() override {
        port_ = FreeUdpPort();
        ASSERT_NE(0, port_);
        sender_.reset(new HeartBeatSender(port_));
    }
    // A supervisor still running, blocked in its receive, is stopped as
    // m_CloseThreads asks it: the stop event, then the wait.
    void TearDown() override {
        if (client.HeartBeatThread() == nullptr) return;
        KvnSetEvent(client.StopEvent());
        const Clock::time_point start = Clock::now();
        EXPECT_TRUE(Ended(client));
        EXPECT_LT(MsSince(start), 1000);
        KvnResetEvent(client.StopEvent());
    }
    static bool Ended(probe::Client& client, DWORD timeoutMs = 2000) {
        return IsSet(client.HeartBeatThread(), timeoutMs);
    }
    // A heartbeat goes out until the client has seen one: the receiver may
    // not be bound yet when the first goes out.
    bool FirstHeartBeat() {
        for (int i = 0; i < 50; ++i) {
            sender_->SendHeartBeat();
            if (IsSet(client.GetEventHB(), 100)) return true;
        }
        return false;
    }

    probe::WinSock winsock_;
    unsigned short port_ = 0;
    std::unique_ptr<HeartBeatSender> sender_;
    probe::Client client;
};

TEST_F(HeartBeat, HeartbeatsSetTheEventAndWhenTheyStopALossComesWithinTheTimeOutPlusASecond) {
    // Time-out: 10 periods of 100 ms (a loaded machine may hold a heartbeat
    // back for a few hundred ms).
    client.StartHeartBeat(port_, 100, 10);
    ASSERT_TRUE(FirstHeartBeat());

    // A steady heartbeat renews the time of life over several time-outs.
    sender_->Start(100);
    EXPECT_FALSE(IsSet(client.GetEventPerteComm(), 1500));
    EXPECT_TRUE(client.IsAppliConnected());
    EXPECT_TRUE(IsSet(client.GetEventHB()));
    sender_->Stop();
    const Clock::time_point stopped = Clock::now();

    ASSERT_TRUE(IsSet(client.GetEventPerteComm(), 5000));
    EXPECT_GE(MsSince(stopped), 900) << "not before the time-out";
    EXPECT_LE(MsSince(stopped), 2500) << "within the time-out plus about a second";
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_TRUE(Ended(client)) << "the supervisor of the lost link ends by itself";
}

TEST_F(HeartBeat, NoLossIsDeclaredWhenNoHeartbeatEverCame) {
    client.StartHeartBeat(port_, 50, 2);
    EXPECT_FALSE(IsSet(client.GetEventPerteComm(), 2500));
    EXPECT_FALSE(IsSet(client.GetEventHB()));
    EXPECT_TRUE(client.IsAppliConnected());
    EXPECT_FALSE(Ended(client, 0)) << "still listening";
}

TEST_F(HeartBeat, DatagramsThatAreNotAHeartbeatAreIgnored) {
    probe::Recorder lines;
    g_logLevel = 2;
    client.StartHeartBeat(port_, 100, 50);
    ASSERT_TRUE(FirstHeartBeat());
    const DWORD old = KvnGetTickCount() - 100000;
    client.SetLastHeartBeat(old);

    const peer::Bytes hb = HeartBeatDatagram();
    peer::Bytes seventeen = hb;
    seventeen.push_back(0);
    peer::Bytes otherCode = hb;
    otherCode[6] = 4;  // a header of the right size with another function code
    for (const peer::Bytes& d : {peer::Bytes(hb.begin(), hb.begin() + 12),
                                 peer::Bytes(hb.begin(), hb.begin() + 13), seventeen, otherCode})
        ASSERT_TRUE(sender_->Send(d));
    // The blocks of the wrong length are logged as they are dropped; the
    // others leave no trace.
    const wchar_t* dropped = L"Erreur recvfrom code";
    probe::WaitUntil([&] { return lines.CountContaining(dropped) >= 2; }, 2000);
    KvnSleep(200);
    EXPECT_EQ(2, lines.CountContaining(dropped)) << "13 and 17 bytes; 12 never queued";
    EXPECT_FALSE(IsSet(client.GetEventHB()));
    EXPECT_EQ(old, client.LastHeartBeat());

    // The receiver is still there: the next heartbeat counts.
    ASSERT_TRUE(sender_->SendHeartBeat());
    EXPECT_TRUE(IsSet(client.GetEventHB(), 2000));
    EXPECT_NE(old, client.LastHeartBeat());
}

TEST_F(HeartBeat, AGroupAddressWithoutRoomForItsEndStopsTheSupervisionAndAGoodOneListens) {
    probe::Recorder lines;
    probe::Client bad;
    bad.StartHeartBeat(port_, 100, 5, 1, L"239.255.255.255.1234567");  // 20 characters kept
    EXPECT_TRUE(Ended(bad));
    EXPECT_EQ(1, lines.CountContaining(L"ThreadHeartBeat : PARAMETRES ERRONES   Client=0"));
    sender_->SendHeartBeat();
    EXPECT_FALSE(IsSet(bad.GetEventHB(), 300));

    // Joining the group may fail on a machine without a multicast route; the
    // receiver listens on its port either way.
    client.StartHeartBeat(port_, 100, 5, 1, L"239.255.42.99");
    EXPECT_TRUE(FirstHeartBeat());
}

// A stop ends it as promptly: see the TearDown.
TEST_F(HeartBeat, TheSupervisorEndsPromptlyWhenTheLinkGoesDown) {
    client.StartHeartBeat(port_, 100, 5);
    ASSERT_TRUE(FirstHeartBeat());
    const Clock::time_point start = Clock::now();
    client.SetMainLink(false);
    EXPECT_TRUE(Ended(client));
    EXPECT_LT(MsSince(start), 1000) << "the blocked receive is woken";
    EXPECT_FALSE(IsSet(client.GetEventPerteComm())) << "a loss seen elsewhere is not declared again";
}

}  // namespace
