// korvaned facing bytes that are not the protocol: it refuses them, drops the
// link when nothing sensible comes, and goes on serving everybody else. What
// the library makes of the service's database answers is proven by the
// end-to-end tests.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "net/Transport.h"

namespace {

void SendRaw(unsigned short port, const std::vector<unsigned char>& bytes) {
    ClientSocket s(port);
    ASSERT_TRUE(s.Valid());
    SockSend(s.Get(), reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), 2000);
}

}  // namespace

TEST(ServiceRobustness, HostileBytesAreRefusedGarbageLinksDroppedAndTheServiceServesOn) {
    // The link whose body never comes counts as a request under way: the
    // service's stop would wait the whole default bound for it.
    RunningService service({"--stop-timeout", "500"});
    ASSERT_NE(0, service.Port());
    OpenConnexion open(service.Port());
    ASSERT_EQ(0, open.cnx.result);
    ConnexionLink& cnx = open.cnx;

    std::mt19937 random(1234);
    std::vector<unsigned char> noise(3000);
    for (unsigned char& b : noise) b = static_cast<unsigned char>(random());
    SendRaw(service.Port(), noise);
    // Implausible headers: unknown function, negative application.
    SendRaw(service.Port(), Header(1, 2, 0, 0));
    SendRaw(service.Port(), Header(-5, KVN_EXECUTE, 1, 10));
    // A header that announces a body that never comes.
    SendRaw(service.Port(), Header(1, KVN_INIT_APPLICATION, 3, 200000));
    // Records that claim more than the body holds, and unknown types.
    std::vector<unsigned char> liar = Header(open.app.IdApplication(), KVN_EXECUTE, 50000, 12);
    const unsigned char body[12] = {0xF8, 0xFF, 0x7F, 'A', 0, 0x04, 0x08, 0, 1, 2, 0x77, 0xFF};
    liar.insert(liar.end(), body, body + sizeof(body));
    SendRaw(service.Port(), liar);
    // The same on a connection's link that is in use: the request is refused
    // or answered with an error, and the link keeps working.
    SockSend(cnx.socket.Get(), reinterpret_cast<const char*>(liar.data()), static_cast<int>(liar.size()), 2000);
    CMsgSocket answer;
    ASSERT_TRUE(ReceiveAnswer(cnx.socket.Get(), answer));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(answer, 0));
    EXPECT_EQ(KVN_ERROR_PARAMETER, LongAt(answer, 1));

    // Typed values where texts are expected, and values missing.
    for (int fonction : {KVN_EXECUTESELECT, KVN_EXECUTEPROC}) {
        ASSERT_EQ(0, fonction == KVN_EXECUTESELECT ? cnx.request.CreateGetLine(5) : cnx.request.CreateFetch());
        cnx.request.SetFonction(fonction);
        ASSERT_TRUE(cnx.Exchange());
        EXPECT_EQ(KVN_ERROR_PARAMETER, LongAt(cnx.answer, 1)) << "function " << fonction;
    }

    // A link that sends only refused headers is closed after a few, which the
    // client sees as the end of the stream.
    ClientSocket s(service.Port());
    ASSERT_TRUE(s.Valid());
    const std::vector<unsigned char> bad = Header(1, 3, 0, 0);
    int closedAfter = -1;
    for (int i = 0; i < 20 && closedAfter < 0; ++i) {
        char refusal[16];
        if (SockSend(s.Get(), reinterpret_cast<const char*>(bad.data()), 16, 1000) != 16 ||
            SockReceive(s.Get(), refusal, 16, 1000) != 16) {
            closedAfter = i;
        } else {
            EXPECT_EQ(0, refusal[6]) << "a refusal carries function 0";
        }
    }
    EXPECT_GT(closedAfter, 0);

    EXPECT_TRUE(service.Running());
    ASSERT_TRUE(cnx.Execute(L"CREATE TABLE still (a INTEGER)"));
    EXPECT_EQ(0, LongAt(cnx.answer, 0));
    EXPECT_EQ(0, ApplicationLink(service.Port()).result);
}
