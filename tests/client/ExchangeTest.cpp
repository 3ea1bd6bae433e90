// The acknowledged exchange seen from the wire: what a message's sender does
// with an acceptance, a refusal or silence, and what its receiver does with
// good, implausible, short and header-only messages. The other end is the
// scripted test service, which reads and writes the bytes with its own codec.
#include <chrono>
#include <cstring>
#include <cwchar>
#include <memory>
#include <ostream>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CMsgSocket.h>
#include <korvane/CMsgSocketClient.h>

#include "peer/ScriptedPeer.h"
#include "support/ClientSocket.h"

namespace {

using peer::Bytes;
using peer::Connection;
using peer::Message;

long MsSince(peer::Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(peer::Clock::now() - start).count());
}

long MsBetween(const Message& first, const Message& second) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(second.at - first.at).count());
}

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

// Each test has a service and a link to it from the library's transport; the
// service's scripts are set before Connect.
class Exchange : public ::testing::Test {
protected:
    void Connect() { link.reset(new ClientSocket(service.Port())); }
    SOCKET Sock() const { return link->Get(); }
    // The client is done: closing its end also ends the service's silence
    // checks (a close is not a byte), then the scripts must all have ended.
    void Finish() {
        if (link) link->Close();
        service.WaitForScripts();
    }

    peer::ScriptedPeer service;
    std::unique_ptr<ClientSocket> link;
};

// ---- The test service's own codec ------------------------------------------------------

TEST(TestServiceWireFormat, WritesAHandWrittenFrameByteForByte) {
    // An EXECUTE of application 7 on connection 3, its acceptance, and an
    // answer carrying the status 0 and the LONG 12.
    Bytes request = {0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x65, 0x01, 0x00, 0x00, 0x00, 0x13,
                     0x00, 0x00, 0x00, 0x01, 0xF8, 0x08, 0x00, 0x53, 0x00, 0x45, 0x00, 0x4C,
                     0x00, 0x45, 0x00, 0x43, 0x00, 0x54, 0x00, 0x20, 0x00, 0x31, 0x00};
    EXPECT_EQ(peer::Hex(request),
              peer::Hex(peer::Encode(peer::Msg(KVN_EXECUTE, 7, 3, {peer::Text(L"SELECT 1")}))));

    Bytes ack = {0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x01, 0x00,
                 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(peer::Hex(ack),
              peer::Hex(AckWithoutLastByte(peer::AckHeader(peer::Decode(request).header, 1))));

    Bytes answer = {0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x65, 0x02, 0x00, 0x00, 0x00, 0x0E,
                    0x00, 0x00, 0x00, 0x01, 0x04, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04,
                    0x04, 0x00, 0x0C, 0x00, 0x00, 0x00};
    Message decoded = peer::Decode(answer);
    ASSERT_TRUE(decoded.complete);
    EXPECT_EQ("", decoded.error);
    ASSERT_EQ(2, decoded.Count());
    EXPECT_EQ(0, decoded.Param(0).AsLong());
    EXPECT_EQ(12, decoded.Param(1).AsLong());
    EXPECT_EQ(peer::Hex(answer),
              peer::Hex(peer::Encode(
                  peer::Msg(KVN_EXECUTE, 7, 3, {peer::Long(0), peer::Long(12)}))));
}

// ---- Sending: an acceptance ends the exchange -----------------------------------------------

TEST_F(Exchange, AnAcknowledgedMessageReturnsOneAndItsBytesAreTheServicesEncoding) {
    Message expected = peer::Msg(KVN_EXECUTE, 7, 3, {peer::Text(L"SELECT 1")});
    service.OnAccept(0, [expected](Connection& c) {
        for (int i = 0; i < 2; ++i) c.Ack(c.ExpectMessage(expected));
    });
    Connect();
    CParamComm comm = CommWith(2000);
    CMsgSocketClient msg;
    msg.Init(7, 3, Sock(), &comm);
    ASSERT_EQ(0, msg.CreateExec(L"SELECT 1"));

    EXPECT_EQ(1, msg.SendMessage(Sock(), -1, -1));
    // The message stays encoded: sending it again sends the same bytes.
    EXPECT_EQ(1, msg.SendMessage(Sock(), -1, -1));
    Finish();
    EXPECT_EQ(2u, service.Received(0).size());
}

TEST_F(Exchange, EveryValueTypeGoesOutAsTheServiceReadsIt) {
    std::int32_t status = -56;
    double amount = -1234.5;
    std::int64_t big = -9000000000LL;
    KvnTimestamp when = {2006, 3, 7, 14, 5, 9, 1234};  // the fraction is never sent
    GUID guid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
    // A character beyond U+FFFF travels as a surrogate pair and counts two.
    const wchar_t* text = L"caf\u00e9 \U0001F600";

    Message expected = peer::Msg(
        42, 9, 0,  // any code: the encoder does not judge it
        {peer::Long(status), peer::Double(amount), peer::BigInt(big),
         peer::Timestamp("070320061405090000"),
         peer::Guid({0x78, 0x56, 0x34, 0x12, 0xBC, 0x9A, 0xF0, 0xDE, 1, 2, 3, 4, 5, 6, 7, 8}),
         peer::Text(text), peer::Text(L""), peer::NullOf(peer::kTypeWChar),
         peer::NullOf(peer::kTypeLong)});
    service.OnAccept(0, [expected](Connection& c) { c.Ack(c.ExpectMessage(expected)); });
    Connect();

    CMsgSocket msg;
    CParamComm comm = CommWith(2000);
    msg.SetParamComm(&comm);
    msg.SetEntete(9, 42, 0);
    msg.AddParametre(SQL_C_LONG, 4, &status);
    msg.AddParametre(SQL_C_DOUBLE, 8, &amount);
    msg.AddParametre(SQL_C_SBIGINT, 8, &big);
    msg.AddParametre(SQL_C_TIMESTAMP, 16, &when);
    msg.AddParametre(SQL_C_GUID, 16, &guid);
    msg.AddParametre(SQL_C_WCHAR, static_cast<unsigned>(std::wcslen(text)), text);
    msg.AddParametre(SQL_C_WCHAR, 0, L"");
    msg.AddParametre(SQL_C_WCHAR, 0, nullptr);
    msg.AddParametre(SQL_C_LONG, 4, nullptr);

    EXPECT_EQ(1, msg.SendMessage(Sock(), -1, -1));
    Finish();
}

TEST_F(Exchange, AMessageWithoutHeaderIsNotSent) {
    service.OnAccept(0, [](Connection& c) { c.ExpectSilence(200); });
    Connect();
    CMsgSocket empty;
    EXPECT_EQ(0, empty.SendMessage(Sock(), -1, -1));
    Finish();
}

// ---- Sending: refusals and silence ----------------------------------------------------------

TEST_F(Exchange, ARefusedMessageIsSentAgainAfterAPauseAndThenAccepted) {
    service.OnAccept(0, [](Connection& c) {
        c.Refuse(c.Expect(KVN_EXECUTE));
        c.Ack(c.Expect(KVN_EXECUTE));
    });
    Connect();
    CParamComm comm = CommWith(2000);
    CMsgSocketClient msg;
    msg.Init(7, 3, Sock(), &comm);
    ASSERT_EQ(0, msg.CreateExec(L"UPDATE t SET a = 1"));

    EXPECT_EQ(1, msg.SendMessage(Sock(), -1, -1));
    Finish();
    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(peer::Hex(got[0].raw), peer::Hex(got[1].raw));
    long pause = MsBetween(got[0], got[1]);
    EXPECT_GE(pause, 90) << "the second attempt follows a pause of 100 ms";
    EXPECT_LT(pause, 1500);
}

TEST_F(Exchange, AMessageRefusedAtEveryAttemptGivesMinus53) {
    service.OnAccept(0, [](Connection& c) {
        for (int i = 0; i < 3; ++i) c.Refuse(c.Expect(KVN_GETLINE));
        c.ExpectSilence(300);  // no fourth attempt
    });
    Connect();
    CParamComm comm = CommWith(2000, 3);
    CMsgSocketClient msg;
    msg.Init(7, 3, Sock(), &comm);
    ASSERT_EQ(0, msg.CreateGetLine(0));

    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendMessage(Sock(), -1, -1));
    Finish();
    EXPECT_EQ(3u, service.Received(0).size());
}

TEST_F(Exchange, AMessageNeverAcknowledgedGivesMinus53AfterOneSendAndOneWait) {
    service.OnAccept(0, [](Connection& c) {
        c.Expect(KVN_EXECUTE);
        c.ExpectSilence(400);  // not sent again: the service may have run it
    });
    Connect();
    CParamComm comm = CommWith(50);
    CMsgSocketClient msg;
    msg.Init(7, 3, Sock(), &comm);
    ASSERT_EQ(0, msg.CreateExec(L"DELETE FROM t"));

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendMessage(Sock(), -1, -1));
    long waited = MsSince(start);
    EXPECT_GE(waited, 40);
    EXPECT_LT(waited, 1000);
    Finish();
    EXPECT_EQ(1u, service.Received(0).size());
}

TEST_F(Exchange, TheAcknowledgementWaitGrowsWithTheNumberOfParameters) {
    // Half a millisecond per parameter once that exceeds nTimeOutAck:
    // 600 parameters wait 300 ms, not 50.
    service.OnAccept(0, [](Connection& c) {
        Message m = c.Expect(104);
        EXPECT_EQ(600, m.Count());
        c.ExpectSilence(600);
    });
    Connect();
    CParamComm comm = CommWith(50);
    CMsgSocket msg;
    msg.SetParamComm(&comm);
    msg.SetEntete(7, 104, 3);
    for (int i = 0; i < 600; ++i) msg.AddParametre(SQL_C_LONG, 4, &i);

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendMessage(Sock(), -1, -1));
    long waited = MsSince(start);
    EXPECT_GE(waited, 280);
    EXPECT_LT(waited, 2000);
    Finish();
}

// ---- Receiving ------------------------------------------------------------------------------

TEST_F(Exchange, AMessageWithABodyIsDecodedAndAcknowledged) {
    Message answer =
        peer::Msg(KVN_EXECUTESELECT, 7, 3,
                  {peer::Long(0), peer::Long(12), peer::Double(2.25),
                   peer::Text(L"Gen\u00e8ve \U0001F600"), peer::NullOf(peer::kTypeWChar)});
    service.OnAccept(0, [answer](Connection& c) { c.Answer(answer); });
    Connect();
    CMsgSocket msg;

    EXPECT_EQ(static_cast<int>(peer::Encode(answer).size()), msg.ReceiveMessage(Sock()));
    Finish();
    EXPECT_EQ(KVN_EXECUTESELECT, msg.GetFonction());
    EXPECT_EQ(7, msg.GetIdApplication());
    EXPECT_EQ(3, msg.GetIdConnexion());
    ASSERT_EQ(5, msg.GetNbParametre());
    // CParam is packed: its fields are copied out before they are compared.
    CParam* p = nullptr;
    ASSERT_EQ(1, msg.GetParametre(1, &p));
    std::int32_t status = p->valNum.lVal;
    EXPECT_EQ(12, status);
    ASSERT_EQ(1, msg.GetParametre(2, &p));
    double amount = p->valNum.dVal;
    EXPECT_EQ(2.25, amount);
    ASSERT_EQ(1, msg.GetParametre(3, &p));
    const wchar_t* text = p->pszValeur;
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(std::wstring(L"Gen\u00e8ve \U0001F600"), std::wstring(text));
    ASSERT_EQ(1, msg.GetParametre(4, &p));
    BOOL isNull = p->bNull;
    EXPECT_TRUE(isNull);
}

TEST_F(Exchange, AHeartbeatHeaderIsAcknowledgedAndKept) {
    // A header-only message keeps no parameter count, whatever it announced.
    service.OnAccept(0, [](Connection& c) {
        peer::Header beat = HeaderOf(KVN_HEART_BEAT, 12, 0, 3, 0);
        c.SendRaw(peer::EncodeHeader(beat));
        EXPECT_EQ(peer::Hex(AckWithoutLastByte(peer::AckHeader(beat, KVN_ACK))),
                  peer::Hex(AckWithoutLastByte(c.ReadRaw(peer::kHeaderSize))));
    });
    Connect();
    CMsgSocket msg;

    EXPECT_EQ(16, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(KVN_HEART_BEAT, msg.GetFonction());
    EXPECT_EQ(12, msg.GetIdApplication());
    EXPECT_EQ(0, msg.GetNbParametre());
    Finish();
}

TEST_F(Exchange, AStrayAcknowledgementIsNotAnsweredAndLeavesNoMessage) {
    service.OnAccept(0, [](Connection& c) {
        c.SendRaw(peer::AckHeader(HeaderOf(0, 12, 0, 0, 0), KVN_ACK));
        c.ExpectSilence(300);
    });
    Connect();
    CMsgSocket msg;

    EXPECT_EQ(16, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(-1, msg.GetFonction());
    Finish();
}

// ---- Receiving: implausible headers ---------------------------------------------------------

TEST_F(Exchange, AnImplausibleHeaderIsRefusedAndWhatFollowsIsDrained) {
    service.OnAccept(0, [](Connection& c) {
        peer::Header bad = HeaderOf(2, 9, 4, 1, 40);
        c.SendRaw(Concat(peer::EncodeHeader(bad), Bytes(40, 0x5A)));
        EXPECT_EQ(peer::Hex(AckWithoutLastByte(peer::AckHeader(bad, 0))),
                  peer::Hex(AckWithoutLastByte(c.ReadRaw(peer::kHeaderSize))));
        // Once the client has given up on it, the next message is read
        // cleanly: the 40 bytes did not stay in the stream.
        if (c.Await("refused")) c.Answer(peer::Msg(KVN_HEART_BEAT, 9, 0));
    });
    Connect();
    CMsgSocket msg;

    EXPECT_EQ(0, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(-1, msg.GetFonction());
    service.Signal("refused");
    EXPECT_EQ(16, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(KVN_HEART_BEAT, msg.GetFonction());
    Finish();
}

TEST_F(Exchange, TheDrainAfterARefusalEndsWhenTheServiceCloses) {
    service.OnAccept(0, [](Connection& c) {
        c.SendRaw(Concat(peer::EncodeHeader(HeaderOf(121, 9, 4, 0, 0)), Bytes(100, 0x33)));
        c.ReadRaw(peer::kHeaderSize);
        c.Close();
    });
    Connect();
    CMsgSocket msg;

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(0, msg.ReceiveMessage(Sock()));
    EXPECT_LT(MsSince(start), 1500);
    Finish();
}

struct HeaderCase {
    const char* what;
    int fonction;
    int idApplication;
    int nbParam;
    std::uint32_t tailleData;
    bool accepted;
};

void PrintTo(const HeaderCase& hc, std::ostream* os) { *os << hc.what; }

class HeaderLimits : public Exchange, public ::testing::WithParamInterface<HeaderCase> {};

TEST_P(HeaderLimits, AreJudgedBeforeAnyBodyIsRead) {
    const HeaderCase hc = GetParam();
    service.OnAccept(0, [hc](Connection& c) {
        peer::Header h = HeaderOf(hc.fonction, hc.idApplication, 4, hc.nbParam, hc.tailleData);
        // An accepted header gets its body (zeros: no record is announced);
        // a refused one is followed by nothing, so the refusal comes first.
        Bytes bytes = peer::EncodeHeader(h);
        if (hc.accepted) bytes.resize(bytes.size() + hc.tailleData, 0);
        c.SendRaw(bytes);
        EXPECT_EQ(peer::Hex(AckWithoutLastByte(peer::AckHeader(h, hc.accepted ? 1 : 0))),
                  peer::Hex(AckWithoutLastByte(c.ReadRaw(peer::kHeaderSize))));
    });
    Connect();
    CMsgSocket msg;

    int expected = hc.accepted ? 16 + static_cast<int>(hc.tailleData) : 0;
    EXPECT_EQ(expected, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(hc.accepted ? hc.fonction : -1, msg.GetFonction());
    Finish();
}

INSTANTIATE_TEST_SUITE_P(
    Exchange, HeaderLimits,
    ::testing::Values(HeaderCase{"Function2", 2, 9, 0, 0, false},
                      HeaderCase{"Function121", 121, 9, 0, 0, false},
                      HeaderCase{"FunctionMinus1", -1, 9, 0, 0, false},
                      HeaderCase{"UnhandledFunction6", 6, 9, 0, 0, true},
                      HeaderCase{"UnhandledFunction112", 112, 9, 0, 0, true},
                      HeaderCase{"ApplicationMinus1", KVN_EXECUTE, -1, 0, 0, false},
                      HeaderCase{"Application128000", KVN_EXECUTE, 128000, 0, 0, true},
                      HeaderCase{"Application128001", KVN_EXECUTE, 128001, 0, 0, false},
                      HeaderCase{"Params50000", KVN_EXECUTE, 9, 50000, 0, true},
                      HeaderCase{"Params50001", KVN_EXECUTE, 9, 50001, 0, false},
                      HeaderCase{"NegativeParams", KVN_EXECUTE, 9, -5, 8, true},
                      HeaderCase{"Body256000", KVN_EXECUTE, 9, 0, 256000, true},
                      HeaderCase{"Body256001", KVN_EXECUTE, 9, 0, 256001, false}),
    [](const ::testing::TestParamInfo<HeaderCase>& info) { return info.param.what; });

// ---- Receiving: short reads (these wait on the fixed read budgets) --------------------------

TEST_F(Exchange, AShortHeaderIsNotAcknowledgedAndLeavesNoMessage) {
    service.OnAccept(0, [](Connection& c) {
        Bytes header = peer::EncodeHeader(HeaderOf(KVN_HEART_BEAT, 9, 0, 0, 0));
        header.resize(10);
        c.SendRaw(header);
        c.ExpectSilence(2600);  // beyond the client's 2000 ms header budget
    });
    Connect();
    CMsgSocket msg;

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(16, msg.ReceiveMessage(Sock()));
    EXPECT_GE(MsSince(start), 1900);
    EXPECT_EQ(-1, msg.GetFonction());
    Finish();
}

TEST_F(Exchange, AShortBodyIsNotAcknowledgedAndLeavesNoMessage) {
    service.OnAccept(0, [](Connection& c) {
        c.SendRaw(Concat(peer::EncodeHeader(HeaderOf(KVN_EXECUTE, 9, 4, 1, 20)), Bytes(5, 0x04)));
        c.ExpectSilence(5600);  // beyond the client's 5000 ms body budget
    });
    Connect();
    CMsgSocket msg;

    EXPECT_EQ(16, msg.ReceiveMessage(Sock()));
    EXPECT_EQ(-1, msg.GetFonction());
    EXPECT_EQ(0, msg.GetNbParametre());
    Finish();
}

}  // namespace
