// The acknowledged exchange seen from the wire: what a message's sender does
// with an acceptance, a refusal or silence, and what its receiver does with
// good, implausible, short and header-only messages. The other end is the
// scripted test service, which reads and writes the bytes with its own codec.
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CMsgSocket.h>
#include <korvane/CMsgSocketClient.h>

#include "ClientTestUtil.h"
#include "support/TestUtil.h"

namespace {

using peer::Bytes;
using peer::Connection;
using peer::Message;

CParamComm CommWith(int timeOutAckMs, int attempts = 2) {
    CParamComm comm;
    comm.nTimeOutAck = timeOutAckMs;
    comm.nNbRetrySend = attempts;
    return comm;
}

Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

peer::Header HeaderOf(int fonction, int idApplication, int idConnexion, int nbParam,
                      std::uint32_t tailleData) {
    peer::Header h;
    h.idApplication = idApplication;
    h.idConnexion = static_cast<std::uint16_t>(idConnexion);
    h.fonction = static_cast<std::int8_t>(fonction);
    h.nbParam = nbParam;
    h.tailleData = tailleData;
    return h;
}

// The first 15 bytes of an acknowledgement: byte 15 has no meaning there.
Bytes AckWithoutLastByte(const Bytes& ack) {
    return Bytes(ack.begin(), ack.begin() + (ack.size() < 15 ? ack.size() : 15));
}

// The service reads the client's acceptance (1) or refusal (0) of header h.
void ExpectAckOf(Connection& c, const peer::Header& h, int fonction) {
    EXPECT_EQ(peer::Hex(AckWithoutLastByte(peer::AckHeader(h, fonction))),
              peer::Hex(AckWithoutLastByte(c.ReadRaw(peer::kHeaderSize))));
}

// What a received message holds: function, application, connection, count.
std::vector<int> Head(CMsgSocket& m) {
    return {m.GetFonction(), m.GetIdApplication(), m.GetIdConnexion(), m.GetNbParametre()};
}
using Ints = std::vector<int>;

class Exchange : public clienttest::WireTest {};

// ---- Sending ------------------------------------------------------------------------------

TEST_F(Exchange, ARefusedMessageIsSentAgainAfterAPauseUntilTheAttemptsRunOut) {
    SOCKET s = Connect([](Connection& c) {
        c.Refuse(c.Expect(KVN_EXECUTE));
        c.Ack(c.Expect(KVN_EXECUTE));
        for (int i = 0; i < 3; ++i) c.Refuse(c.Expect(KVN_GETLINE));
        c.ExpectSilence(300);  // no fourth attempt
    });
    CParamComm comm = CommWith(2000, 3);
    CMsgSocketClient msg;
    msg.Init(7, 3, s, &comm);
    ASSERT_EQ(0, msg.CreateExec(L"UPDATE t SET a = 1"));
    EXPECT_EQ(1, msg.SendMessage(s, -1, -1));
    ASSERT_EQ(0, msg.CreateGetLine(0));
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendMessage(s, -1, -1));
    Finish();

    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(5u, got.size());
    EXPECT_EQ(peer::Hex(got[0].raw), peer::Hex(got[1].raw));
    long long pause =
        std::chrono::duration_cast<std::chrono::milliseconds>(got[1].at - got[0].at).count();
    EXPECT_GE(pause, 90) << "the second attempt follows a pause of 100 ms";
    EXPECT_LT(pause, 1500);
}

// Never sent again (the service may have run it), after one wait of
// nTimeOutAck, or of half a millisecond per parameter when that is longer.
TEST_F(Exchange, AnUnacknowledgedMessageGivesMinus53AfterOneWaitGrowingWithItsParameters) {
    const struct {
        int params;
        long long atLeastMs, belowMs;
    } cases[] = {{1, 40, 1000}, {600, 280, 2000}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.params);
        const int params = k.params;
        SOCKET s = Connect([params](Connection& c) {
            EXPECT_EQ(params, c.Expect(104).Count());
            c.ExpectSilence(600);
        });
        CParamComm comm = CommWith(50);
        CMsgSocket msg;
        msg.SetParamComm(&comm);
        msg.SetEntete(7, 104, 3);
        for (int i = 0; i < params; ++i) msg.AddParametre(SQL_C_LONG, 4, &i);
        kvntest::Clock::time_point start = kvntest::Clock::now();
        EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendMessage(s, -1, -1));
        long long waited = kvntest::MsSince(start);
        EXPECT_GE(waited, k.atLeastMs);
        EXPECT_LT(waited, k.belowMs);
        Finish();
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(1u, service.Received(i).size());
}

// ---- Receiving ----------------------------------------------------------------------------

TEST_F(Exchange, ReceivedMessagesAreDecodedAndAcknowledgedButAStrayAcknowledgementIsNot) {
    Message answer = peer::Msg(KVN_EXECUTESELECT, 7, 3, {peer::Long(0), peer::Long(12)});
    SOCKET s = Connect([answer](Connection& c) {
        c.Answer(answer);
        // A header-only message keeps no parameter count, whatever it announced.
        peer::Header beat = HeaderOf(KVN_HEART_BEAT, 12, 0, 3, 0);
        c.SendRaw(peer::EncodeHeader(beat));
        ExpectAckOf(c, beat, KVN_ACK);
        c.SendRaw(peer::AckHeader(HeaderOf(0, 12, 0, 0, 0), KVN_ACK));
        c.ExpectSilence(300);
    });
    CMsgSocket msg;
    EXPECT_EQ(static_cast<int>(peer::Encode(answer).size()), msg.ReceiveMessage(s));
    ASSERT_EQ((Ints{KVN_EXECUTESELECT, 7, 3, 2}), Head(msg));
    CParam* p = nullptr;
    ASSERT_EQ(1, msg.GetParametre(1, &p));
    EXPECT_EQ(12, clienttest::Read(p->valNum.lVal));

    CMsgSocket beat;
    EXPECT_EQ(16, beat.ReceiveMessage(s));
    EXPECT_EQ((Ints{KVN_HEART_BEAT, 12, 0, 0}), Head(beat));

    CMsgSocket stray;
    EXPECT_EQ(16, stray.ReceiveMessage(s));
    EXPECT_EQ(-1, stray.GetFonction());
    Finish();
}

TEST_F(Exchange, AnImplausibleHeaderIsRefusedAndDrainedUntilTheNextMessageOrTheClose) {
    SOCKET s = Connect([](Connection& c) {
        peer::Header bad = HeaderOf(2, 9, 4, 1, 40);
        c.SendRaw(Concat(peer::EncodeHeader(bad), Bytes(40, 0x5A)));
        ExpectAckOf(c, bad, 0);
        // Once the client has given up on it, the next message is read
        // cleanly: the 40 bytes did not stay in the stream.
        if (c.Await("refused")) c.Answer(peer::Msg(KVN_HEART_BEAT, 9, 0));
    });
    CMsgSocket msg;
    EXPECT_EQ(0, msg.ReceiveMessage(s));
    EXPECT_EQ(-1, msg.GetFonction());
    service.Signal("refused");
    EXPECT_EQ(16, msg.ReceiveMessage(s));
    EXPECT_EQ(KVN_HEART_BEAT, msg.GetFonction());
    Finish();

    s = Connect([](Connection& c) {
        c.SendRaw(Concat(peer::EncodeHeader(HeaderOf(121, 9, 4, 0, 0)), Bytes(100, 0x33)));
        c.ReadRaw(peer::kHeaderSize);
        c.Close();
    });
    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(0, msg.ReceiveMessage(s));
    EXPECT_LT(kvntest::MsSince(start), 1500) << "the drain ends with the service's close";
    Finish();
}

TEST_F(Exchange, HeaderLimitsAreJudgedBeforeAnyBodyIsRead) {
    const struct {
        const char* what;
        int fonction, idApplication, nbParam;
        std::uint32_t tailleData;
        bool accepted;
    } cases[] = {{"unhandled function 6", 6, 9, 0, 0, true},
                 {"negative parameters", KVN_EXECUTE, 9, -5, 8, true},
                 {"body of 256000", KVN_EXECUTE, 9, 0, 256000, true},
                 {"body of 256001", KVN_EXECUTE, 9, 0, 256001, false}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const peer::Header h = HeaderOf(k.fonction, k.idApplication, 4, k.nbParam, k.tailleData);
        const bool accepted = k.accepted;
        SOCKET s = Connect([h, accepted](Connection& c) {
            // An accepted header gets its body (zeros: no record is announced);
            // a refused one is followed by nothing, so the refusal comes first.
            Bytes bytes = peer::EncodeHeader(h);
            if (accepted) bytes.resize(bytes.size() + h.tailleData, 0);
            c.SendRaw(bytes);
            ExpectAckOf(c, h, accepted ? 1 : 0);
        });
        CMsgSocket msg;
        EXPECT_EQ(accepted ? 16 + static_cast<int>(k.tailleData) : 0, msg.ReceiveMessage(s));
        EXPECT_EQ(accepted ? k.fonction : -1, msg.GetFonction());
        Finish();
    }
}

// These wait on the client's fixed read budgets: 2000 ms for a header, 5000
// ms for a body.
TEST_F(Exchange, AShortHeaderOrBodyIsNotAcknowledgedAndLeavesNoMessage) {
    Bytes shortHeader = peer::EncodeHeader(HeaderOf(KVN_HEART_BEAT, 9, 0, 0, 0));
    shortHeader.resize(10);
    const struct {
        const char* what;
        Bytes bytes;
        DWORD silenceMs;
        long long atLeastMs;
    } cases[] = {
        {"header", shortHeader, 2600, 1900},
        {"body", Concat(peer::EncodeHeader(HeaderOf(KVN_EXECUTE, 9, 4, 1, 20)), Bytes(5, 0x04)),
         5600, 4900},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const Bytes bytes = k.bytes;
        const DWORD silence = k.silenceMs;
        SOCKET s = Connect([bytes, silence](Connection& c) {
            c.SendRaw(bytes);
            c.ExpectSilence(silence);
        });
        CMsgSocket msg;
        kvntest::Clock::time_point start = kvntest::Clock::now();
        EXPECT_EQ(16, msg.ReceiveMessage(s));
        EXPECT_GE(kvntest::MsSince(start), k.atLeastMs);
        EXPECT_EQ(-1, msg.GetFonction());
        EXPECT_EQ(0, msg.GetNbParametre());
        Finish();
    }
}

}  // namespace
