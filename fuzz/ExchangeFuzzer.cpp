// Fuzz target of the acknowledged exchange: a received message through the
// header check, the body read and the acknowledgement, and the link requests
// that send a message, wait for its acknowledgement and read an answer.
//
// Input: a mode byte, a flags byte, then the bytes the peer sends (read in
// order through a transport without sockets, FakeTransport.h). The outcome of
// every step is checked against the exchange's rules written out here, and
// every acknowledgement the library sends against the message it answers.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <korvane/CMsgSocketClient.h>

#include "FakeTransport.h"
#include "FuzzSupport.h"
#include "diag/Log.h"
#include "protocol/WireHeader.h"

namespace {

using fuzzsupport::PlausibleHeader;
using fuzzsupport::TracedMessage;
using fuzzwire::Stream;

constexpr std::size_t kEntete = KVN_TAILLE_ENTETE;
constexpr SOCKET kSock = 42;  // never used as a socket: the transport is fake

enum Mode {
    kReceive,
    kSend,
    kInitApplication,
    kReInitApplication,
    kInitConnexion,
    kReInitConnexion,
    kCloseApplication,
    kHeartBeat,
    kModes
};

enum Flags { kSendFails = 1, kNarrowText = 2, kTraced = 4 };

std::uint32_t Le32(const std::uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// The 16-byte acknowledgement sent at `at`: its function and the ids of the
// header it answers.
void CheckAck(const Stream& s, std::size_t at, const std::uint8_t* answered, int fonction) {
    if (s.sendFails) {  // tried and lost; the receiver goes on regardless
        FUZZ_CHECK(s.sent.size() == at);
        return;
    }
    FUZZ_CHECK(s.sent.size() == at + kEntete);
    const std::uint8_t* a = s.sent.data() + at;
    FUZZ_CHECK(std::memcmp(a, answered, 6) == 0);  // application and connection ids
    FUZZ_CHECK(static_cast<signed char>(a[6]) == fonction);
    FUZZ_CHECK(Le32(a + 7) == 0 && Le32(a + 11) == 0);
}

// One ReceiveMessage, checked against the header and body it was given.
int ReceiveOne(TracedMessage& m, Stream& s) {
    const std::size_t from = s.pos;
    const std::size_t sentBefore = s.sent.size();
    std::uint8_t h[kEntete];
    const bool whole = s.Left() >= kEntete;
    if (whole) std::memcpy(h, s.data + from, kEntete);

    const int r = m.ReceiveMessage(kSock);

    if (!whole) {  // a short header: nothing kept, nothing answered
        FUZZ_CHECK(r == static_cast<int>(kEntete) && m.GetFonction() == -1);
        FUZZ_CHECK(s.sent.size() == sentBefore);
        return r;
    }
    if (!PlausibleHeader(h)) {  // refused, and what followed drained
        FUZZ_CHECK(r == 0 && m.GetFonction() == -1);
        CheckAck(s, sentBefore, h, 0);
        FUZZ_CHECK(s.Left() == 0 || s.pos - from > 256000);
        return r;
    }
    const std::uint32_t taille = Le32(h + 11);
    const int fonction = static_cast<signed char>(h[6]);
    const std::int32_t annonce = static_cast<std::int32_t>(Le32(h + 7));
    if (s.size - from - kEntete < taille) {  // a short body: nothing kept, nothing answered
        FUZZ_CHECK(r == static_cast<int>(kEntete) && m.GetFonction() == -1);
        FUZZ_CHECK(s.sent.size() == sentBefore && s.Left() == 0);
        return r;
    }
    FUZZ_CHECK(s.pos == from + kEntete + taille);
    if (taille == 0 && fonction == KVN_ACK) {  // a stray acknowledgement
        FUZZ_CHECK(r == static_cast<int>(kEntete) && m.GetFonction() == -1);
        FUZZ_CHECK(s.sent.size() == sentBefore);
        return r;
    }
    FUZZ_CHECK(r == static_cast<int>(kEntete + taille));
    FUZZ_CHECK(m.GetFonction() == fonction);
    FUZZ_CHECK(m.CMsgSocket::GetIdApplication() == static_cast<std::int32_t>(Le32(h)));
    FUZZ_CHECK(m.GetNbParametre() >= 0);
    FUZZ_CHECK(m.GetNbParametre() <= (annonce > 0 ? annonce : 0));
    FUZZ_CHECK(taille > 0 || m.GetNbParametre() == 0);
    CheckAck(s, sentBefore, h, KVN_ACK);
    return r;
}

// What a link request that answers with the answer's function code returns,
// given the bytes that followed its message.
void CheckLinkRequest(TracedMessage& m, Stream& s, std::size_t ackAt, int r, bool singleValue) {
    if (s.sendFails) {
        FUZZ_CHECK(r == KVN_ERROR_SOCKET_CLOSED);
        return;
    }
    if (ackAt + kEntete > s.size || static_cast<signed char>(s.data[ackAt + 6]) != KVN_ACK) {
        FUZZ_CHECK(r == KVN_ERROR_SOCKET_CLOSED);  // no acknowledgement, or a refusal
        return;
    }
    const std::size_t answerAt = ackAt + kEntete;
    if (answerAt + kEntete <= s.size && !PlausibleHeader(s.data + answerAt)) {
        FUZZ_CHECK(r == KVN_ERROR_RECEIVE);
        return;
    }
    if (!singleValue) {
        FUZZ_CHECK(r == m.GetFonction());
        return;
    }
    // INIT_APPLICATION: accepted with 10 values, refused with one value or
    // with a code of the service's; anything else is a malformed answer.
    const int nb = m.GetNbParametre();
    if (m.GetFonction() == KVN_INIT_OK && nb == 10) {
        FUZZ_CHECK(r == 0);
    } else if (nb == 1) {
        CParam* p = nullptr;
        FUZZ_CHECK(m.GetParametre(0, &p) == 1);
        FUZZ_CHECK(r == p->valNum.lVal);
    } else if (nb != 10) {
        FUZZ_CHECK(r == KVN_ERROR_INIT_NB_PARAM);
    } else {
        FUZZ_CHECK(r == m.GetFonction());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int mode = data[0] % kModes;
    const int flags = data[1];

    Stream& s = fuzzwire::Current();
    s = Stream();
    s.data = data + 2;
    s.size = size - 2;
    s.sendFails = (flags & kSendFails) != 0;
    KvnResetLogForTests();
    if (flags & kTraced) InitLog(7, nullptr, 0);

    CParamComm comm;
    comm.nNbRetrySend = 1;  // a second attempt would sleep first
    TracedMessage m;
    m.Init(mode == kInitApplication ? 0 : 7, 3, kSock, &comm);

    int r = 0;
    switch (mode) {
    case kReceive:
        for (int k = 0; k < 8 && s.Left() > 0; ++k) {
            if (ReceiveOne(m, s) > static_cast<int>(kEntete)) {
                fuzzsupport::Render(m);
                m.Dump();
            }
        }
        break;
    case kSend: {
        m.SetEntete(7, KVN_EXECUTE, 3);
        m.AddParametre(SQL_C_WCHAR, 6, L"SELECT");
        const int unicode = (flags & kNarrowText) ? 0 : -1;
        r = m.SendMessage(kSock, unicode, -1);
        int len = 0;
        const BYTE* bytes = m.GetMessage(&len);
        FUZZ_CHECK(bytes != nullptr && len > static_cast<int>(kEntete));
        if (s.sendFails) {
            FUZZ_CHECK(r == KVN_ERROR_SOCKET_CLOSED && s.sent.empty() && s.pos == 0);
            break;
        }
        // Sent whole, once; accepted only by an acknowledgement header.
        FUZZ_CHECK(s.sent.size() == static_cast<std::size_t>(len));
        FUZZ_CHECK(std::memcmp(s.sent.data(), bytes, s.sent.size()) == 0);
        const bool acked = s.size >= kEntete && static_cast<signed char>(s.data[6]) == KVN_ACK;
        FUZZ_CHECK(r == (acked ? 1 : KVN_ERROR_SOCKET_CLOSED));
        break;
    }
    case kInitApplication:
        r = m.SendInitApplication(L"fuzz");
        CheckLinkRequest(m, s, 0, r, true);
        fuzzsupport::Render(m);
        break;
    case kReInitApplication:
        r = m.SendReInitApplication(L"fuzz");
        CheckLinkRequest(m, s, 0, r, false);
        break;
    case kInitConnexion:
        r = m.SendInitConnexion();
        CheckLinkRequest(m, s, 0, r, false);
        break;
    case kReInitConnexion:
        r = m.SendReInitConnexion();
        CheckLinkRequest(m, s, 0, r, false);
        break;
    case kCloseApplication:
    case kHeartBeat: {
        r = mode == kHeartBeat ? m.SendHeartBeat() : m.SendCloseApplication();
        const bool acked = !s.sendFails && s.size >= kEntete &&
                           static_cast<signed char>(s.data[6]) == KVN_ACK;
        FUZZ_CHECK(r == (acked ? 0 : KVN_ERROR_SOCKET_CLOSED));
        break;
    }
    }
    KvnResetLogForTests();
    return 0;
}
