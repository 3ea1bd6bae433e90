// What the application is told about its link to the service: the events it
// waits on, the registered messages posted to its window and the count of
// links up, at the opening and the closing of a session and at a loss (the
// losses the service causes are in SupervisionTest).
#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include <korvane/platform/KvnWait.h>

#include "ClientProbe.h"
#include "support/RestartingService.h"
#include "support/ServiceSession.h"

#if !KVN_SYSTEM_WAITS
#include <poll.h>
#endif

namespace {

using probe::IsSet;

class Notifications : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, window_.h);
        service_.OnAccept(0, MainLink(SessionAnswer()));
        service_.OnEveryAccept(ConnexionLink());
    }
    void Open() { ASSERT_EQ(KVN_NO_ERROR, client.Open(service_.Port(), window_.h)); }

    // The next message posted to the window (0 when none comes soon) is `name`.
    void ExpectPosted(const wchar_t* name, DWORD timeoutMs = 1000) {
        EXPECT_EQ(name ? KvnRegisterWindowMessage(name) : 0u, window_.Next(timeoutMs));
    }
    void ExpectNothingPosted() { ExpectPosted(nullptr, 50); }

    probe::WinSock winsock_;
    probe::Window window_;
    peer::ScriptedPeer service_;
    probe::Client client;
};

TEST_F(Notifications, SessionOpensWithCommOkAndClosesWithPerteCommEvenWhenRefused) {
    service_.OnAccept(0, &probe::RefuseApplication);
    service_.OnAccept(1, MainLink(SessionAnswer()));
    service_.OnAccept(4, MainLink(SessionAnswer()));
    ASSERT_EQ(KVN_ERROR_UNKNOWN, client.Open(service_.Port(), window_.h));
    ExpectNothingPosted();
    client.Free();
    // The main socket was still open: the application is told it is gone,
    // but the links never were all up.
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_FALSE(IsSet(client.GetEventPerteComm()));

    Open();
    ExpectPosted(KVN_MSG_COMM_OK);
    EXPECT_TRUE(IsSet(client.GetEventCommOK())) << "the main link alone is every link";
    EXPECT_TRUE(client.AllConnected());
    ExpectNothingPosted();

    ASSERT_EQ(1, client.GetConnexion());
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    ASSERT_EQ(2, client.GetConnexion());
    EXPECT_EQ(3, client.NbConnected());
    EXPECT_FALSE(IsSet(client.GetEventCommOK())) << "already all up: not told again";
    ExpectNothingPosted();

    client.Free();
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_TRUE(IsSet(client.GetEventPerteComm())) << "every link was up";
    EXPECT_FALSE(client.AllConnected());
    EXPECT_EQ(0, client.NbConnected());

    // A Free with no session open tells nothing.
    client.Free();
    ExpectNothingPosted();
    EXPECT_FALSE(IsSet(client.GetEventPerteComm()));

    // A new session starts counting again from nothing.
    Open();
    ExpectPosted(KVN_MSG_COMM_OK);
    EXPECT_TRUE(IsSet(client.GetEventCommOK()));
    EXPECT_EQ(1, client.NbConnected());
    client.Free();
    EXPECT_TRUE(service_.WaitForScripts());
}

TEST_F(Notifications, ALossIsToldOnceHoweverManyThreadsReportIt) {
    // The loss closes the links: not before the service has read the
    // acknowledgements of its answers (a loaded machine may delay it).
    auto accepted = std::make_shared<std::atomic<int>>(0);
    service_.OnEveryAccept(ConnexionLink([accepted](peer::Connection& c) {
        ++*accepted;
        AcknowledgeUntilClose(c);
    }));
    Open();
    ASSERT_EQ(1, client.GetConnexion());
    ASSERT_EQ(2, client.GetConnexion());
    ASSERT_TRUE(probe::WaitUntil([&] { return *accepted == 2; }));
    ExpectPosted(KVN_MSG_COMM_OK);
    KvnResetEvent(client.GetEventCommModified());

    // The main socket's thread, the heartbeat and requests may all see the
    // same loss at once.
    std::thread other([&] { client.m_NotifyComLost(); });
    client.m_NotifyComLost();
    other.join();
    client.m_NotifyComLost();
    ExpectPosted(KVN_MSG_PERTE_COMM);
    ExpectNothingPosted();
    EXPECT_TRUE(IsSet(client.GetEventPerteComm()));
    EXPECT_FALSE(IsSet(client.GetEventPerteComm()));
    EXPECT_TRUE(IsSet(client.PerteCommInterne())) << "the requests in flight are woken";
    EXPECT_TRUE(IsSet(client.PerteCommInterne())) << "all of them";
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    EXPECT_FALSE(client.IsConnexionConnected(1));
    EXPECT_FALSE(client.IsConnexionConnected(2));
    EXPECT_FALSE(client.AllConnected());
    EXPECT_EQ(0, client.NbConnected());
}

TEST_F(Notifications, LossDuringShutdownLeavesTheConnexionsToIt) {
    Open();
    ExpectPosted(KVN_MSG_COMM_OK);
    KvnResetEvent(client.GetEventCommModified());

    KvnSetEvent(client.StopEvent());
    client.m_NotifyComLost();
    EXPECT_FALSE(IsSet(client.GetEventCommModified())) << "connections not marked down";
    EXPECT_TRUE(IsSet(client.GetEventPerteComm()));
    ExpectPosted(KVN_MSG_PERTE_COMM);
    KvnResetEvent(client.StopEvent());
}

#if !KVN_SYSTEM_WAITS
// What an event loop watches: the descriptors of the loss and return events.
TEST_F(Notifications, ALossAndARecoveryEachMakeTheirDescriptorReadableOnce) {
    RestartingService service;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), window_.h));
    ASSERT_EQ(1, client.GetConnexion());
    const HANDLE events[2] = {client.GetEventPerteComm(), client.GetEventCommOK()};
    pollfd fds[2] = {{KvnGetEventFd(events[0]), POLLIN, 0}, {KvnGetEventFd(events[1]), POLLIN, 0}};
    ASSERT_GE(fds[0].fd, 0);
    ASSERT_GE(fds[1].fd, 0);
    // The event loop: what became readable within ms, taken with a wait.
    auto next = [&](int ms) {
        if (poll(fds, 2, ms) != 1) return -1;  // nothing, or both at once
        const int i = (fds[0].revents & POLLIN) ? 0 : 1;
        EXPECT_EQ(kvn::kWaitObject0, kvn::WaitForSingleObject(events[i], 0));
        return i;
    };
    ASSERT_EQ(1, next(1000)) << "the opening's \"comm OK\"";
    ASSERT_EQ(-1, next(0));

    service.Restart();
    EXPECT_EQ(0, next(3000)) << "the loss, alone";
    EXPECT_EQ(1, next(8000)) << "then every link back";
    EXPECT_EQ(-1, next(300)) << "each once";
    client.Free();
}
#endif

}  // namespace
