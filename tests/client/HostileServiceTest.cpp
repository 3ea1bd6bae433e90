// A service that breaks the protocol on a connection's link, over a real
// socket: garbage, records that run past their body, a body that never ends,
// answers meant for another connection. Each ends in the result codes the
// application is promised, the connection stays usable where its link does,
// and nothing is left behind (the sanitized builds check the leaks).
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>

#include <gtest/gtest.h>

#include <korvane/KvnDefs.h>

#include "client/ClientTimings.h"
#include "peer/ScriptedPeer.h"
#include "support/OperationSession.h"

namespace {

using peer::Bytes;
using peer::Connection;
using peer::Long;
using peer::Msg;

class HostileService : public OperationSession {
protected:
    void TearDown() override {
        KvnSetAnswerWaitForTests(0);
        OperationSession::TearDown();
    }
    // Waits (bounded) for the link's script to reach a point.
    static void Reached(std::future<void>& point) {
        ASSERT_EQ(std::future_status::ready, point.wait_for(std::chrono::milliseconds(peer::kWaitMs)));
    }
    int Execute() {
        resultat = -1;
        return client.Execute(hCnx, L"UPDATE T SET A = 1", resultat);
    }
    int resultat = -1;
};

// Reads the 16 bytes that refuse what was sent: function 0, its ids copied.
void ExpectRefusal(Connection& c, const Bytes& refused) {
    Bytes refusal = c.ReadRaw(peer::kHeaderSize);
    ASSERT_EQ(peer::kHeaderSize, refusal.size());
    EXPECT_EQ(0, refusal[6]);
    EXPECT_EQ(Bytes(refused.begin(), refused.begin() + 6), Bytes(refusal.begin(), refusal.begin() + 6));
}

TEST_F(HostileService, GarbageIsRefusedAndDrainedAndTheLinkGoesOn) {
    std::promise<void> refused;
    std::future<void> refusedSeen = refused.get_future();
    Open([&refused](Connection& c) {
        const Bytes garbage(300, 0x5A);  // application id 0x5A5A5A5A: not a header
        c.SendRaw(garbage);
        ExpectRefusal(c, garbage);
        refused.set_value();
        Serve(c, KVN_EXECUTE, {Long(0), Long(12)});
    });
    Reached(refusedSeen);
    EXPECT_EQ(KVN_NO_ERROR, Execute());
    EXPECT_EQ(12, resultat);
}

TEST_F(HostileService, RecordsPastTheirBodyGiveAReceiveErrorAndTheirTailIsRefused) {
    std::promise<void> refused;
    std::future<void> refusedSeen = refused.get_future();
    Open([&refused](Connection& c) {
        peer::Message request = c.Expect(KVN_EXECUTE);
        c.Ack(request);
        // The header announces the status and only the head of the text
        // record that follows it; the rest of the text comes after the body.
        Bytes whole = peer::Encode(Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                                       {Long(0), peer::Text(L"ZZZZZZZZZZZZZZZZZZZZZZZZ")}));
        const std::size_t body = 7 + 3 + 4;
        peer::Header h = peer::DecodeHeader(whole.data());
        h.tailleData = body;
        Bytes bytes = peer::EncodeHeader(h);
        bytes.insert(bytes.end(), whole.begin() + peer::kHeaderSize, whole.end());
        c.SendRaw(bytes);
        Bytes ack = c.ReadRaw(peer::kHeaderSize);
        ASSERT_EQ(peer::kHeaderSize, ack.size());
        EXPECT_EQ(KVN_ACK, ack[6]);
        ExpectRefusal(c, Bytes(bytes.begin() + peer::kHeaderSize + body, bytes.end()));
        refused.set_value();
        Serve(c, KVN_EXECUTE, {Long(0), Long(5)});
    });
    EXPECT_EQ(KVN_ERROR_RECEIVE, Execute());
    EXPECT_EQ(0, resultat);
    Reached(refusedSeen);
    EXPECT_EQ(KVN_NO_ERROR, Execute());
    EXPECT_EQ(5, resultat);
}

// Unasked answers with foreign ids are taken in and dropped by the next
// request. Each round hands a stale answer over just before the request is
// published: it must never pass for the request's own answer.
TEST_F(HostileService, AnswersForAnotherConnectionLeaveNothingForTheNextRequest) {
    const int kRounds = 30;
    // Rounds in step: the service sends round k's stale answer once the
    // application has read round k - 1, and the application sends round k's
    // request once that stale answer was acknowledged.
    struct Steps {
        std::mutex lock;
        std::condition_variable changed;
        int staleAcknowledged = -1;
        int read = -1;
        bool Await(int& counter, int value) {
            std::unique_lock<std::mutex> guard(lock);
            return changed.wait_for(guard, std::chrono::milliseconds(peer::kWaitMs),
                                    [&] { return counter >= value; });
        }
        void Set(int& counter, int value) {
            std::lock_guard<std::mutex> guard(lock);
            counter = value;
            changed.notify_all();
        }
    };
    auto steps = std::make_shared<Steps>();
    Open([steps](Connection& c) {
        // A block of rows first; the heartbeat's acknowledgement then tells
        // that the rows were stored.
        c.Answer(Msg(KVN_GETLINE, 99, 4321, {Long(0), Long(1), Long(1), Long(0), Long(42)}));
        c.Answer(Msg(KVN_HEART_BEAT, 99, 4321));
        for (int k = 0; k <= kRounds; ++k) {
            if (k > 0) {
                if (!steps->Await(steps->read, k - 1)) return;
                c.Answer(Msg(KVN_EXECUTE, 99, 4321, {Long(0), Long(-k)}));
            }
            steps->Set(steps->staleAcknowledged, k);
            Serve(c, KVN_EXECUTE, {Long(0), Long(k)});
        }
    });
    for (int k = 0; k <= kRounds; ++k) {
        ASSERT_TRUE(steps->Await(steps->staleAcknowledged, k)) << "round " << k;
        ASSERT_EQ(KVN_NO_ERROR, Execute()) << "round " << k;
        ASSERT_EQ(k, resultat) << "round " << k;
        if (k == 0) {
            // The rows that came unasked went with the statement that followed.
            long valeur = 0;
            EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, valeur));
        }
        steps->Set(steps->read, k);
    }
    ExpectConnexionFree();
}

// The one test here that waits on a real budget: the client gives a body
// 5 s to arrive before it drops it unacknowledged.
TEST_F(HostileService, ABodyThatNeverEndsEndsInATimeOutAndFreesTheConnexion) {
    Open([](Connection& c) {
        peer::Message request = c.Expect(KVN_EXECUTE);
        c.Ack(request);
        peer::Header h;
        h.idApplication = request.IdApplication();
        h.idConnexion = static_cast<std::uint16_t>(request.IdConnexion());
        h.fonction = KVN_EXECUTE;
        h.nbParam = 2;
        h.tailleData = 1000;
        Bytes start = peer::EncodeHeader(h);
        start.resize(start.size() + 10, 0x04);
        c.SendRaw(start);
        EXPECT_TRUE(c.ExpectSilence(5500)) << "an incomplete body was acknowledged";
    });
    KvnSetAnswerWaitForTests(300);
    EXPECT_EQ(KVN_ERROR_TIMEOUT, Execute());
    EXPECT_EQ(-1, resultat);
    ExpectConnexionFree();
}

}  // namespace
