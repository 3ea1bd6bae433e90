// Stored procedures: the declarations and their refusals, the request that
// carries every parameter with its direction (OUT ones as NULL), and the
// copy of the returned values into the application's variables.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "ClientTestUtil.h"
#include "support/OperationSession.h"

namespace {

using peer::Long;
using peer::Text;

class StoredProc : public OperationSession {};

TEST_F(StoredProc, DeclarationsAreRefusedInTheirOrderOfChecks) {
    Open(nullptr);
    LogUpTo(3);
    const std::wstring line = L"CKorvaneClient::SetStoredProcParams(): erreur ";
    int v = 1;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 2, KVN_PARAM_IN, SQL_C_LONG, &v, 0));
    EXPECT_EQ(1, log.Count(line + L"parametre \"colonne\" = 2"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 0, KVN_PARAM_IN, SQL_C_LONG, &v, 0));
    // A null value is reported first, whatever else is wrong.
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 5, 3, SQL_C_GUID, nullptr, 0));
    EXPECT_EQ(1, log.Count(line + L"parametre 5 = NULL"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 1, 3, SQL_C_LONG, &v, 0));
    EXPECT_EQ(1, log.Count(line + L"sens inconnu (parametre 3)"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, SQL_C_GUID, &v, 0));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, 0x104, &v, 0));
    EXPECT_EQ(2, log.Count(line + L"type inconnu (parametre 4)"));

    // 64 parameters are accepted, the 65th is not.
    ASSERT_EQ(0, client.ClearStoredProcParams(hCnx));
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_LONG, &v, 0)) << i;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_LONG, &v, 0));
    EXPECT_EQ(1, log.Count(line + L"nb de parametres max atteint (64)"));
    // A declared position may be declared again, even in a full table.
    double d = 2.5;
    EXPECT_EQ(0, client.SetStoredProcParams(hCnx, 64, KVN_PARAM_IN, SQL_C_DOUBLE, &d, 0));

    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.ClearStoredProcParams(hCnx + 1));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.AddStoredProcParams(hCnx + 1, KVN_PARAM_IN, SQL_C_LONG, &v, 0));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.SetStoredProcParams(hCnx + 1, 1, KVN_PARAM_IN, SQL_C_LONG, &v, 0));
    for (const wchar_t* trace : {L"\r\nError KVN_ERROR_HANDLE_CNX 18  ",
                                 L"\r\nError KVN_ERROR_HANDLE_CNX 19  ",
                                 L"\r\nError KVN_ERROR_HANDLE_CNX 20  "})
        EXPECT_EQ(1, debugger.Count(trace)) << std::wstring(trace).substr(2).c_str();
}

TEST_F(StoredProc, EveryDirectionAndTypeTravelsAndComesBack) {
    Open([](peer::Connection& c) {
        Serve(c, KVN_EXECUTEPROC,
              {Long(0), Text(L"retour"), peer::Double(1.25), Long(77),
               peer::Timestamp("010220230405060000"), peer::BigInt(1LL << 40), Text(L"sortie")});
        Serve(c, KVN_EXECUTEPROC,
              {Long(0), Text(L"encore"), peer::Double(0), Long(0),
               peer::Timestamp("010220230405060000"), peer::BigInt(0), peer::NullOf(peer::kTypeWChar)});
    });
    int in = 5;
    wchar_t inout[32] = L"abc";
    double outDouble = 0;
    int outLong = 0;
    KvnTimestamp outTs = {};
    long long outBig = 0;
    KvnTimestamp inTs = {2021, 3, 4, 5, 6, 7, 0};
    wchar_t outText[32] = L"xxxxxxxxxx";

    ASSERT_EQ(0, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, SQL_C_LONG, &in, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_INOUT, 248, inout, 3));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_DOUBLE, &outDouble, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_LONG, &outLong, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_TIMESTAMP, &outTs, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, 231, &outBig, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_TIMESTAMP, &inTs, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_WCHAR, outText, 0));

    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"ps_test", 9));
    EXPECT_STREQ(L"retour", inout);
    EXPECT_DOUBLE_EQ(1.25, outDouble);
    EXPECT_EQ(77, outLong);
    EXPECT_EQ(6, static_cast<int>(outTs.second));
    EXPECT_EQ(1LL << 40, outBig);
    EXPECT_STREQ(L"sortie", outText);

    // The table survives the call: the same parameters go again, with the
    // IN value of the IN/OUT text as declared, not as returned. A NULL text
    // comes back as the empty text.
    CString nom(L"ps_test");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, nom, 9));
    EXPECT_STREQ(L"encore", inout);
    EXPECT_STREQ(L"", outText);

    Finish();
    std::vector<peer::Message> calls = clienttest::OfFunction(Requests(), KVN_EXECUTEPROC);
    ASSERT_EQ(2u, calls.size());
    // Each parameter goes as its direction, then its value (NULL when OUT).
    using namespace peer;
    const Message expected = Msg(
        KVN_EXECUTEPROC, 7, hCnx,
        {Text(L"ps_test"), Long(9), Long(1), Long(5, 8), Long(2), Text(L"abc"), Long(4),
         NullOf(kTypeDouble), Long(4), NullOf(kTypeLong), Long(4), NullOf(kTypeTimestamp), Long(4),
         NullOf(kTypeBigInt), Long(1), Timestamp("040320210506070000"), Long(4), NullOf(kTypeWChar)});
    for (const peer::Message& m : calls) clienttest::ExpectSameRequest(expected, m);
}

TEST_F(StoredProc, AReturnedValueOfAnotherTypeOrMissingStopsTheCopy) {
    Open([](peer::Connection& c) {
        Serve(c, KVN_EXECUTEPROC, {Long(0), Long(11), Long(12)});
        Serve(c, KVN_EXECUTEPROC, {Long(0), Long(21)});
    });
    int first = 0;
    double second = 0.5;
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_LONG, &first, 0));
    ASSERT_EQ(0, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_DOUBLE, &second, 0));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecStoredProc(hCnx, L"ps", 0));
    EXPECT_EQ(11, first);
    EXPECT_DOUBLE_EQ(0.5, second);
    // Fewer values than OUT parameters: the answer is short.
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.ExecStoredProc(hCnx, L"ps", 0));
    EXPECT_EQ(21, first);
    EXPECT_DOUBLE_EQ(0.5, second);
}

TEST_F(StoredProc, WithoutParametersOnlyTheNameAndOptionAreSent) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_EXECUTEPROC, {Long(0), Long(0)});
        EXPECT_EQ(2, m.Count());
        EXPECT_EQ(L"ps_vide", m.Param(0).AsWide());
        EXPECT_EQ(-3, m.Param(1).AsLong());
        c.ExpectSilence(200);
    });
    DStr nom(L"ps_vide");
    EXPECT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, nom, -3));
    DStr vide;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecStoredProc(hCnx, vide, 0));
    CString videC;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecStoredProc(hCnx + 1, videC, 0));
    EXPECT_EQ(0, debugger.CountContaining(L"KVN_ERROR_HANDLE_CNX 21"));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.ExecStoredProc(hCnx + 1, L"ps", 0));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 21  "));
}

}  // namespace
