// The service's text of a connection's last ODBC error, and the large test
// request that SendTest puts on the wire.
#include <string>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "support/OperationSession.h"
#include "support/TestUtil.h"

namespace {

using peer::Long;
using peer::Text;

class ServiceText : public OperationSession {};

TEST_F(ServiceText, LastErrorTextNullOrNot) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(0), Text(L"[ODBC] table inconnue")});
        EXPECT_EQ(0, m.Count());
        Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(0), peer::NullOf(peer::kTypeWChar)});
        Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(-2), Long(KVN_ERROR_ODBC)});
        Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(0), Text(L"a"), Text(L"b")});
    });
    DStr text(L"avant");
    EXPECT_EQ(KVN_NO_ERROR, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_STREQ(L"[ODBC] table inconnue", text.GetString());
    EXPECT_EQ(KVN_NO_ERROR, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_STREQ(L"", text.GetString());

    text = L"avant";
    EXPECT_EQ(KVN_ERROR_ODBC, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetLastErrorConnexion(hCnx + 1, text));
    EXPECT_STREQ(L"avant", text.GetString());
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 1  "));
}

TEST_F(ServiceText, SendTestPutsTheFixedRequestOnTheWire) {
    Open([](peer::Connection& c) {
        peer::Message m = c.Expect(KVN_EXECUTE);
        c.Ack(m);
        ASSERT_EQ(2500, m.Count());
        for (int n = 1; n <= 500; n++) {
            SCOPED_TRACE("group " + std::to_string(n));
            const int base = (n - 1) * 5;
            EXPECT_EQ(peer::kTypeLong, m.Param(base).type);
            EXPECT_EQ(8, m.Param(base).size);
            EXPECT_EQ(10000 * n, m.Param(base).AsLong());
            const std::wstring texte = L"Toto et le texte qui tue " + std::to_wstring(n);
            EXPECT_EQ(peer::kTypeChar, m.Param(base + 1).type);
            EXPECT_EQ(texte.size(), m.Param(base + 1).size);
            EXPECT_EQ(texte, m.Param(base + 1).AsWide());
            EXPECT_DOUBLE_EQ(n * 100.0, m.Param(base + 2).AsDouble());
            EXPECT_EQ(peer::kTypeTimestamp, m.Param(base + 3).type);
            EXPECT_EQ(18, m.Param(base + 3).size);
            EXPECT_EQ(peer::kTypeTimestamp, m.Param(base + 4).type);
            EXPECT_TRUE(m.Param(base + 4).IsNull());
        }
    });
    auto start = kvntest::Clock::now();
    EXPECT_EQ(KVN_NO_ERROR, client.SendTest(hCnx));
    EXPECT_GE(kvntest::MsSince(start), 500 - kvntest::kTickSlackMs);
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.SendTest(hCnx + 1));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 14  "));
}

}  // namespace
