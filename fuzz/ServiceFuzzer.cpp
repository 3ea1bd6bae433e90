// Fuzz target of korvaned: every request a client can send, handled by a
// link of the service on a SQLite database in memory, and every answer the
// service sends checked as a client would read it.
//
// Input: a byte of flags, then requests back to back, each a 16-byte header
// and the body it announces (cut to what the input holds). Each run opens an
// application's link and a logical connection's link as a client would
// (unless flag 2 says to start from a link that has registered nothing) and
// hands the requests to the connection's link, or with flag 1 to the
// application's. Requests reach the link as its receive loop would hand them
// over: decoded, with a plausible header. Answers go out through a transport
// that keeps them (FakeTransport.h) and acknowledges each at once.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <korvane/CMsgSocket.h>

#include "FakeTransport.h"
#include "FuzzSupport.h"
#include "Odbc.h"
#include "Server.h"
#include "ServiceLog.h"
#include "Session.h"
#include "protocol/WireHeader.h"

class FuzzedSession {
public:
    static bool Handle(Session& s, CMsgSocket& m) { return s.Handle(m); }
    static void Release(Session& s) { s.Release(); }
};

namespace {

constexpr std::size_t kEntete = KVN_TAILLE_ENTETE;
constexpr SOCKET kSock = 42;  // never used as a socket: the transport is fake
constexpr int kRequests = 8;

Server& Service() {
    static Server* server = [] {
        SetServiceLogLevel(-2);  // not a line: the runs would drown in them
        const std::string driver = FindSqliteDriver();
        if (driver.empty()) {
            std::fprintf(stderr, "the SQLite ODBC driver is not installed (libsqliteodbc)\n");
            std::abort();
        }
        ServiceOptions options;
        options.blockRows = 7;  // selects of a few rows already come in several blocks
        return new Server(options, SqliteConnectionString(driver, ":memory:"));
    }();
    return *server;
}

// Every answer sent since `from`: a plausible header, a body of the announced
// length that decodes into as many values as the header counts (a value a
// client would drop would move the values after it), and for a database
// request the request's own function code.
void CheckAnswers(const fuzzwire::Stream& s, std::size_t from, int fonction) {
    std::size_t pos = from;
    while (pos < s.sent.size()) {
        FUZZ_CHECK(s.sent.size() - pos >= kEntete);
        const std::uint8_t* h = s.sent.data() + pos;
        FUZZ_CHECK(fuzzsupport::PlausibleHeader(h));
        const std::uint32_t taille = GetLE32(h + 11);
        FUZZ_CHECK(s.sent.size() - pos - kEntete >= taille);
        std::unique_ptr<BYTE[]> copy(new BYTE[kEntete + taille]);
        std::memcpy(copy.get(), h, kEntete + taille);
        CMsgSocket answer;
        FUZZ_CHECK(answer.AnalyseMessageComplet(copy.get()) == 1);
        FUZZ_CHECK(answer.GetNbParametre() == static_cast<std::int32_t>(GetLE32(h + 7)));
        if (fonction >= KVN_EXECUTE && fonction <= KVN_REQUETE_METABASE)
            FUZZ_CHECK(answer.GetFonction() == fonction);
        pos += kEntete + taille;
    }
}

// A request built by the library's own encoder, as a client sends it.
void Register(Session& session, CMsgSocket& request) {
    request.CreateMessage(-1);
    FuzzedSession::Handle(session, request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t flags = data[0];
    Server& server = Service();
    fuzzwire::Stream& s = fuzzwire::Current();
    s = fuzzwire::Stream();
    s.autoAck = true;

    static unsigned long serial = 0;
    Session application(server, kSock, ++serial);
    Session connexion(server, kSock, ++serial);
    if (!(flags & 2)) {
        CMsgSocket init;
        init.SetEntete(0, KVN_INIT_APPLICATION, 0);
        init.AddParametre(SQL_C_WCHAR, 4, L"fuzz");
        init.AddParametre(SQL_C_WCHAR, 7, L"service");
        int one = 1;
        init.AddParametre(SQL_C_LONG, 4, &one);
        Register(application, init);
        const int id = s.sent.size() >= kEntete ? static_cast<int>(GetLE32(s.sent.data())) : 0;
        CMsgSocket open;
        open.SetEntete(id, KVN_INIT_CONNEXION, 1);
        Register(connexion, open);
        s.sent.clear();
    }
    Session& target = (flags & 1) ? application : connexion;

    fuzzsupport::TracedMessage check;
    std::size_t pos = 1;
    for (int k = 0; k < kRequests; ++k) {
        std::unique_ptr<BYTE[]> message = fuzzsupport::NextMessage(data, size, pos);
        if (!message) break;
        CMsgSocket request;
        CEnteteMsgSocket entete;
        DecodeEntete(message.get(), entete);
        if (!check.HeaderOk(&entete)) continue;  // refused by the receive loop
        if (request.AnalyseMessageComplet(message.get()) != 1) continue;
        const std::size_t before = s.sent.size();
        const bool goOn = FuzzedSession::Handle(target, request);
        CheckAnswers(s, before, request.GetFonction());
        if (!goOn) break;
    }
    FuzzedSession::Release(connexion);
    FuzzedSession::Release(application);
    // The socket was never the sessions' to close.
    connexion.DetachSocket();
    application.DetachSocket();
    return 0;
}
