// The dispatch of the service's answers into a connection: what each kind of
// answer stores, what a malformed one leaves, and that the waiting caller is
// always woken by an answer with a receiver and never by one without.
//
// The answers are written by the test peer's own encoder and decoded by the
// library as a connection's thread would, without any socket.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CMsgSocketClient.h>
#include <korvane/KvnDefs.h>

#include "ClientTestUtil.h"
#include "client/CConnexionKorvane.h"
#include "peer/WireCodec.h"
#include "platform/Kernel.h"

namespace {

using clienttest::Read;
using peer::Long;
using peer::Text;
using peer::Value;

std::vector<Value> Longs(int first, int count) {
    std::vector<Value> v;
    for (int i = 0; i < count; ++i) v.push_back(Long(first + i));
    return v;
}

std::vector<Value> Concat(std::vector<Value> a, const std::vector<Value>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// status, first value, second status, rows, columns, more-rows flag, cells...
std::vector<Value> SelectAnswer(int rows, int columns, int more, std::vector<Value> cells) {
    return Concat({Long(0), Long(42), Long(0), Long(rows), Long(columns), Long(more)}, cells);
}

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override {
        cnx.hEvtResultArrived = KvnCreateEvent(FALSE, FALSE);
        ASSERT_NE(nullptr, cnx.hEvtResultArrived);
    }
    void TearDown() override { KvnCloseHandle(cnx.hEvtResultArrived); }

    // Decodes the answer as received and dispatches it into target.
    int Deliver(int fonction, std::vector<Value> params, CConnexionKorvane* target) {
        peer::Bytes bytes = peer::Encode(peer::Msg(fonction, 7, 1, std::move(params)));
        CMsgSocketClient msg;
        EXPECT_EQ(1, msg.AnalyseMessageComplet(bytes.data()));
        int r = msg.AnalyseFonction(target);
        EXPECT_EQ(-1, msg.GetFonction()) << "the message is cleared";
        EXPECT_EQ(0, msg.GetNbParametre());
        return r;
    }
    int Deliver(int fonction, std::vector<Value> params) {
        return Deliver(fonction, std::move(params), &cnx);
    }
    bool Signalled() { return KvnWaitForSingleObject(cnx.hEvtResultArrived, 0) == WAIT_OBJECT_0; }

    // What the last answer left, and that it woke the caller.
    void ExpectStored(int resultat, int code, int count) {
        EXPECT_EQ(resultat, cnx.m_nResultat);
        EXPECT_EQ(code, cnx.m_nCodeErreur);
        EXPECT_EQ(count, cnx.m_nNbResultats);
        EXPECT_TRUE(Signalled());
    }
    void ExpectMalformed() { ExpectStored(-2, KVN_ERROR_RECEIVE, 0); }
    // A state that no receiver writes, to see what a receiver leaves alone.
    void Stale() {
        cnx.m_nResultat = 77;
        cnx.m_nCodeErreur = 78;
        cnx.m_nNbResultats = 5;
    }
    // Column values of the head row, as longs.
    std::vector<int> HeadRow(int columns) {
        std::vector<int> row;
        for (int c = 1; c <= columns; ++c) {
            CParam* p = nullptr;
            if (cnx.m_selectBuffer.GetData(c, &p) != 0) break;
            row.push_back(Read(p->valNum.lVal));
        }
        return row;
    }
    // Fills the buffer with one row holding one value.
    void OneRowBuffered(int value) {
        CLigneSelect* row = new CLigneSelect;
        CParam* p = new CParam;
        p->cType = SQL_C_LONG;
        p->valNum.lVal = value;
        row->AddParam(p);
        cnx.m_selectBuffer.AddLigne(row);
    }

    CConnexionKorvane cnx;
};

// ---- Answers of one value, or of the status only ---------------------------------------

TEST_F(Dispatch, SingleValueAnswersStoreTheValueOrTheServiceCodeOrReadAsReceiveError) {
    for (int code : {KVN_EXECUTE, KVN_EXECUTEBIND, KVN_GETDATA, KVN_EXISTTABLE, KVN_EXISTCOLUMN,
                     KVN_GET_ODBC_ERROR_TEXT}) {
        SCOPED_TRACE(code);
        Stale();
        EXPECT_EQ(0, Deliver(code, {Long(0), Long(12)}));
        ExpectStored(0, 0, 1);
        EXPECT_EQ(SQL_C_LONG, Read(cnx.m_tabParam[0].cType));
        EXPECT_EQ(12, Read(cnx.m_tabParam[0].valNum.lVal));
        Deliver(code, {Long(-2), Long(KVN_ERROR_ODBC)});
        ExpectStored(-2, KVN_ERROR_ODBC, 0);
        // The wrong shape: one value too many, or a status that is not a LONG.
        for (const std::vector<Value>& bad : std::vector<std::vector<Value>>{
                 {Long(0), Long(12), Long(13)}, {peer::Double(0.0), Long(12)}}) {
            Stale();
            Deliver(code, bad);
            ExpectMalformed();
        }
    }
}

TEST_F(Dispatch, FetchAnswerStoresTheStatusAndKeepsTheValueCount) {
    Stale();
    Deliver(KVN_FETCH, {Long(0)});
    ExpectStored(0, 0, 5);
    Deliver(KVN_FETCH, {Long(-2), Long(KVN_ERROR_STATEMENT_CLOSED), Long(3)});
    ExpectStored(-2, KVN_ERROR_STATEMENT_CLOSED, 5);
    Deliver(KVN_FETCH, {Long(-2)});
    ExpectStored(-2, KVN_ERROR_RECEIVE, 5);
    Deliver(KVN_FETCH, {Text(L"0")});
    ExpectStored(-2, KVN_ERROR_RECEIVE, 5);
}

TEST_F(Dispatch, DirectRequestAnswerKeepsOnlyTheStatus) {
    Stale();
    Deliver(KVN_REQUETE_METABASE, {Long(0)});
    ExpectStored(0, KVN_ERROR_RECEIVE, 0);  // only an error status sets the code
    Deliver(KVN_REQUETE_METABASE, {Long(1), Long(55)});
    ExpectStored(1, KVN_ERROR_RECEIVE, 0);
    Deliver(KVN_REQUETE_METABASE, {Long(-2), Long(KVN_ERROR_NO_DATABASE)});
    ExpectStored(-2, KVN_ERROR_NO_DATABASE, 0);
    Deliver(KVN_REQUETE_METABASE, {});
    ExpectMalformed();
}

// ---- Lists of values --------------------------------------------------------------------

TEST_F(Dispatch, ValueListsStoreUpToTheirLimitOrTheErrorOrReadAsReceiveError) {
    Deliver(KVN_GETCOLUMNS, Concat({Long(0)}, Longs(1, 200)));
    ExpectStored(0, 0, 128);
    EXPECT_EQ(1, Read(cnx.m_tabParam[0].valNum.lVal));
    EXPECT_EQ(128, Read(cnx.m_tabParam[127].valNum.lVal));

    for (int i = 0; i < KVN_NB_PARAM_CNX; ++i) cnx.m_tabParam[i].valNum.lVal = -1;
    Deliver(KVN_EXECUTEPROC, Concat({Long(0)}, Longs(1, 70)));
    ExpectStored(0, 0, 64);
    EXPECT_EQ(64, Read(cnx.m_tabParam[63].valNum.lVal));
    EXPECT_EQ(-1, Read(cnx.m_tabParam[64].valNum.lVal)) << "values beyond 64 are ignored";

    for (int code : {KVN_GETCOLUMNS, KVN_EXECUTEPROC}) {
        SCOPED_TRACE(code);
        Stale();
        Deliver(code, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND), Long(9)});
        ExpectStored(-2, KVN_ERROR_TABLE_NOT_FOUND, 0);
        Stale();
        Deliver(code, {Long(0)});
        ExpectMalformed();
    }
}

// ---- Rows: the first block of a select -------------------------------------------------------

TEST_F(Dispatch, SelectBlockReplacesTheRowsWithItsCompleteRowsOnly) {
    OneRowBuffered(999);  // an earlier select's row: replaced
    cnx.m_selectBuffer.SetLastLigne();
    Deliver(KVN_EXECUTESELECT, SelectAnswer(3, 2, 1, Longs(1, 5)));
    ExpectStored(0, 0, 1);
    EXPECT_EQ(42, Read(cnx.m_tabParam[0].valNum.lVal));
    CSelectBuffer& buffer = cnx.m_selectBuffer;
    EXPECT_EQ(2, buffer.GetNbLigne()) << "the fifth cell makes no row";
    EXPECT_EQ((std::vector<int>{1, 2}), HeadRow(2));
    int remaining = -1;
    ASSERT_EQ(0, buffer.Fetch(remaining));
    ASSERT_EQ(0, buffer.Fetch(remaining));
    EXPECT_EQ((std::vector<int>{3, 4}), HeadRow(2));
    EXPECT_EQ(0, buffer.IsLastLigne()) << "the service has more rows";
    EXPECT_EQ(0, buffer.IsCurrentReceptLine());
}

TEST_F(Dispatch, ShortAndMalformedSelectAnswers) {
    // Three parameters: the value is kept, the buffer and its flags are not touched.
    OneRowBuffered(999);
    Deliver(KVN_EXECUTESELECT, {Long(0), Long(42), Long(0)});
    ExpectStored(0, 0, 1);
    EXPECT_EQ(42, Read(cnx.m_tabParam[0].valNum.lVal));
    EXPECT_EQ(1, cnx.m_selectBuffer.GetNbLigne());
    EXPECT_EQ(0, cnx.m_selectBuffer.IsLastLigne());

    // A second status of -2: no rows at all, the result is over.
    Deliver(KVN_EXECUTESELECT, {Long(0), Long(42), Long(-2), Long(1), Long(1), Long(1), Long(5)});
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_selectBuffer.GetNbLigne());
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());

    Stale();
    Deliver(KVN_EXECUTESELECT, {Text(L"0"), Long(1), Long(0), Long(1), Long(1), Long(0), Long(1)});
    ExpectMalformed();
    EXPECT_EQ(1, cnx.m_selectBuffer.GetNbLigne()) << "a malformed answer adds no row";
}

// ---- Rows: the next blocks ------------------------------------------------------------

TEST_F(Dispatch, NextBlockWithoutRowsOrWithAnErrorEndsTheRows) {
    const struct {
        std::vector<Value> answer;
        int code;
    } cases[] = {{{Long(0), Long(0), Long(2), Long(1)}, KVN_NO_DATA},
                 {{Long(-2), Long(KVN_ERROR_STATEMENT_CLOSED), Long(1), Long(1)},
                  KVN_ERROR_STATEMENT_CLOSED},
                 {{Long(0)}, KVN_ERROR_RECEIVE}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.code);
        cnx.m_selectBuffer.VideBuffer();
        Deliver(KVN_GETLINE, k.answer);
        EXPECT_EQ(-2, cnx.m_nResultat);
        EXPECT_EQ(k.code, cnx.m_nCodeErreur);
        EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());
        EXPECT_TRUE(Signalled());
    }
}

// ---- What has no receiver --------------------------------------------------------------

TEST_F(Dispatch, HeartbeatAndUnknownCodesStoreNothingAndWakeNobody) {
    Stale();
    EXPECT_EQ(0, Deliver(KVN_HEART_BEAT, {}));
    for (int code : {KVN_INIT_OK, KVN_DECONNEXION_WARNING, KVN_DECONNEXION, KVN_LIBERE_CNX_SELECT,
                     KVN_NUMRESULTCOLS, KVN_BINDPARAMETER, -5}) {
        SCOPED_TRACE(code);
        EXPECT_EQ(-2, Deliver(code, {Long(0), Long(12)}));
    }
    EXPECT_EQ(77, cnx.m_nResultat);
    EXPECT_EQ(78, cnx.m_nCodeErreur);
    EXPECT_EQ(5, cnx.m_nNbResultats);
    EXPECT_FALSE(Signalled());

    CMsgSocketClient empty;
    EXPECT_EQ(-2, empty.AnalyseFonction(&cnx));
    // Without a connection only the heartbeat is accepted.
    EXPECT_EQ(0, Deliver(KVN_HEART_BEAT, {}, nullptr));
    EXPECT_EQ(-2, Deliver(KVN_EXECUTE, {Long(0), Long(12)}, nullptr));
}

}  // namespace
