// Helpers shared by the tests of the exchange, the requests and the database
// operations.
#ifndef KVN_TESTS_CLIENT_CLIENTTESTUTIL_H
#define KVN_TESTS_CLIENT_CLIENTTESTUTIL_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "peer/ScriptedPeer.h"
#include "support/ClientSocket.h"

namespace clienttest {

// A copy of a field of a packed value: the checks take their arguments by
// reference, which a packed field cannot bind to.
template <class T>
T Read(T v) {
    return v;
}

// The messages of function `fonction` among `all`.
inline std::vector<peer::Message> OfFunction(const std::vector<peer::Message>& all, int fonction) {
    std::vector<peer::Message> found;
    for (const peer::Message& m : all)
        if (m.Fonction() == fonction) found.push_back(m);
    return found;
}

// Compares a request read by the service with the one expected: header
// fields, then each record's type, size and value. A LONG is compared on its
// 4 value bytes only: what fills a wider field is not the client's to say.
inline void ExpectSameRequest(const peer::Message& expected, const peer::Message& got) {
    ASSERT_TRUE(got.complete) << "the request did not arrive whole";
    EXPECT_EQ("", got.error) << peer::Hex(got.raw);
    EXPECT_EQ(expected.Fonction(), got.Fonction());
    EXPECT_EQ(expected.IdApplication(), got.IdApplication());
    EXPECT_EQ(expected.IdConnexion(), got.IdConnexion());
    EXPECT_EQ(1, got.header.unicode);
    ASSERT_EQ(expected.Count(), got.Count()) << peer::Hex(got.raw);
    EXPECT_EQ(got.Count(), got.header.nbParam);
    for (int i = 0; i < expected.Count(); ++i) {
        const peer::Value& e = expected.Param(i);
        const peer::Value& g = got.Param(i);
        SCOPED_TRACE("parameter " + std::to_string(i));
        EXPECT_EQ(static_cast<int>(e.type), static_cast<int>(g.type));
        EXPECT_EQ(e.size, g.size);
        if (e.IsNull() || g.IsNull()) continue;
        if (e.isText) {
            EXPECT_EQ(e.AsWide(), g.AsWide());
        } else if (e.type == peer::kTypeLong) {
            EXPECT_EQ(e.AsLong(), g.AsLong());
        } else {
            EXPECT_EQ(peer::Hex(e.data), peer::Hex(g.data));
        }
    }
}

// A scripted service and a link to it from the library's transport. Each
// Connect plays its script on the next socket the service accepts.
class WireTest : public ::testing::Test {
protected:
    SOCKET Connect(peer::Script script) {
        service.OnAccept(accepted_++, std::move(script));
        link.reset(new ClientSocket(service.Port()));
        return link->Get();
    }
    // The client is done: closing its end also ends the service's silence
    // checks (a close is not a byte), then the scripts must all have ended.
    void Finish() {
        if (link) link->Close();
        service.WaitForScripts();
    }

    peer::ScriptedPeer service;
    std::unique_ptr<ClientSocket> link;

private:
    int accepted_ = 0;
};

}  // namespace clienttest

#endif
