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

#include "client/CConnexionKorvane.h"
#include "peer/WireCodec.h"
#include "platform/Kernel.h"

namespace {

// A copy of a field of a packed value: the checks take their arguments by
// reference, which a packed field cannot bind to.
template <class T>
T Read(T v) {
    return v;
}

using peer::Long;
using peer::Msg;
using peer::Text;
using peer::Value;

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override {
        cnx.hEvtResultArrived = KvnCreateEvent(FALSE, FALSE);
        ASSERT_NE(nullptr, cnx.hEvtResultArrived);
    }
    void TearDown() override { KvnCloseHandle(cnx.hEvtResultArrived); }

    // Decodes the answer as received and dispatches it into cnx.
    int Deliver(int fonction, std::vector<Value> params, CConnexionKorvane* target) {
        peer::Bytes bytes = peer::Encode(Msg(fonction, 7, 1, std::move(params)));
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

    // A state that no receiver writes, to see what a receiver leaves alone.
    void Stale() {
        cnx.m_nResultat = 77;
        cnx.m_nCodeErreur = 78;
        cnx.m_nNbResultats = 5;
    }
    void ExpectMalformed() {
        EXPECT_EQ(-2, cnx.m_nResultat);
        EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur);
        EXPECT_EQ(0, cnx.m_nNbResultats);
        EXPECT_TRUE(Signalled());
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
    static std::vector<Value> Longs(int first, int count) {
        std::vector<Value> v;
        for (int i = 0; i < count; ++i) v.push_back(Long(first + i));
        return v;
    }
    static std::vector<Value> Concat(std::vector<Value> a, const std::vector<Value>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    }

    CConnexionKorvane cnx;
};

const int kSingleValueCodes[] = {KVN_EXECUTE,     KVN_EXECUTEBIND, KVN_GETDATA,
                                 KVN_EXISTTABLE,  KVN_EXISTCOLUMN, KVN_GET_ODBC_ERROR_TEXT};

// ---- Answers of one value ------------------------------------------------------------

TEST_F(Dispatch, SingleValueAnswersStoreTheValueOrTheServiceCode) {
    for (int code : kSingleValueCodes) {
        SCOPED_TRACE(code);
        Stale();
        EXPECT_EQ(0, Deliver(code, {Long(0), Long(12)}));
        EXPECT_EQ(0, cnx.m_nResultat);
        EXPECT_EQ(0, cnx.m_nCodeErreur);
        EXPECT_EQ(1, cnx.m_nNbResultats);
        EXPECT_EQ(SQL_C_LONG, Read(cnx.m_tabParam[0].cType));
        EXPECT_EQ(12, Read(cnx.m_tabParam[0].valNum.lVal));
        EXPECT_TRUE(Signalled());

        Deliver(code, {Long(-2), Long(KVN_ERROR_ODBC)});
        EXPECT_EQ(-2, cnx.m_nResultat);
        EXPECT_EQ(KVN_ERROR_ODBC, cnx.m_nCodeErreur);
        EXPECT_EQ(0, cnx.m_nNbResultats);
        EXPECT_TRUE(Signalled());
    }
}

TEST_F(Dispatch, SingleValueAnswerOfTheWrongShapeReadsAsReceiveError) {
    for (int code : kSingleValueCodes) {
        SCOPED_TRACE(code);
        Stale();
        Deliver(code, {Long(0), Long(12), Long(13)});
        ExpectMalformed();
        Stale();
        Deliver(code, {peer::Double(0.0), Long(12)});
        ExpectMalformed();
    }
}

// ---- Status only ----------------------------------------------------------------------

TEST_F(Dispatch, FetchAnswerStoresTheStatusAndKeepsTheValueCount) {
    Stale();
    Deliver(KVN_FETCH, {Long(0)});
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(5, cnx.m_nNbResultats);
    EXPECT_TRUE(Signalled());

    Deliver(KVN_FETCH, {Long(-2), Long(KVN_ERROR_STATEMENT_CLOSED), Long(3)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_STATEMENT_CLOSED, cnx.m_nCodeErreur);

    Deliver(KVN_FETCH, {Long(-2)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur);

    Deliver(KVN_FETCH, {Text(L"0")});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur);
    EXPECT_EQ(5, cnx.m_nNbResultats);
    EXPECT_TRUE(Signalled());
}

TEST_F(Dispatch, DirectRequestAnswerKeepsOnlyTheStatus) {
    Stale();
    Deliver(KVN_REQUETE_METABASE, {Long(0)});
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur) << "only an error status sets the code";
    EXPECT_EQ(0, cnx.m_nNbResultats);
    EXPECT_TRUE(Signalled());

    Deliver(KVN_REQUETE_METABASE, {Long(1), Long(55)});
    EXPECT_EQ(1, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur);
    EXPECT_EQ(0, cnx.m_nNbResultats);

    Deliver(KVN_REQUETE_METABASE, {Long(-2), Long(KVN_ERROR_NO_DATABASE)});
    EXPECT_EQ(KVN_ERROR_NO_DATABASE, cnx.m_nCodeErreur);

    Deliver(KVN_REQUETE_METABASE, {});
    ExpectMalformed();
}

// ---- Lists of values --------------------------------------------------------------------

TEST_F(Dispatch, ValueListsStoreUpToTheirLimit) {
    Deliver(KVN_GETCOLUMNS, Concat({Long(0)}, Longs(1, 200)));
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(128, cnx.m_nNbResultats);
    EXPECT_EQ(1, Read(cnx.m_tabParam[0].valNum.lVal));
    EXPECT_EQ(128, Read(cnx.m_tabParam[127].valNum.lVal));
    EXPECT_TRUE(Signalled());

    for (int i = 0; i < KVN_NB_PARAM_CNX; ++i) cnx.m_tabParam[i].valNum.lVal = -1;
    Deliver(KVN_EXECUTEPROC, Concat({Long(0)}, Longs(1, 70)));
    EXPECT_EQ(64, cnx.m_nNbResultats);
    EXPECT_EQ(64, Read(cnx.m_tabParam[63].valNum.lVal));
    EXPECT_EQ(-1, Read(cnx.m_tabParam[64].valNum.lVal)) << "values beyond 64 are ignored";

}

TEST_F(Dispatch, ValueListsReadErrorsAndMalformedAnswers) {
    for (int code : {KVN_GETCOLUMNS, KVN_EXECUTEPROC}) {
        SCOPED_TRACE(code);
        Stale();
        Deliver(code, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND), Long(9)});
        EXPECT_EQ(-2, cnx.m_nResultat);
        EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, cnx.m_nCodeErreur);
        EXPECT_EQ(0, cnx.m_nNbResultats);
        Stale();
        Deliver(code, {Long(0)});
        ExpectMalformed();
    }
}

// ---- Rows: the first block of a select -------------------------------------------------------

// status, first value, second status, rows, columns, more-rows flag, cells...
std::vector<Value> SelectAnswer(int rows, int columns, int more, std::vector<Value> cells) {
    std::vector<Value> v = {Long(0), Long(42), Long(0), Long(rows), Long(columns), Long(more)};
    v.insert(v.end(), cells.begin(), cells.end());
    return v;
}

TEST_F(Dispatch, SelectBlockBuildsCompleteRowsOnly) {
    OneRowBuffered(999);  // an earlier select's row: replaced
    cnx.m_selectBuffer.SetLastLigne();
    Deliver(KVN_EXECUTESELECT, SelectAnswer(3, 2, 1, Longs(1, 5)));
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_nNbResultats);
    EXPECT_EQ(42, Read(cnx.m_tabParam[0].valNum.lVal));
    EXPECT_TRUE(Signalled());

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

TEST_F(Dispatch, SelectBlockWithoutMoreRowsEndsTheResult) {
    Deliver(KVN_EXECUTESELECT, SelectAnswer(1, 3, 0, {Long(7), Text(L"abc"), peer::NullOf(4)}));
    CSelectBuffer& buffer = cnx.m_selectBuffer;
    EXPECT_EQ(1, buffer.GetNbLigne());
    EXPECT_EQ(1, buffer.IsLastLigne());
    CParam* p = nullptr;
    ASSERT_EQ(0, buffer.GetData(2, &p));
    EXPECT_EQ(std::wstring(L"abc"), std::wstring(p->pszValeur));
    ASSERT_EQ(0, buffer.GetData(3, &p));
    EXPECT_NE(0, Read(p->bNull));
}

TEST_F(Dispatch, EmptySelectIsASuccessWithNoData) {
    OneRowBuffered(999);
    Deliver(KVN_EXECUTESELECT, SelectAnswer(0, 2, 1, {}));
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(KVN_NO_DATA, cnx.m_nCodeErreur);
    EXPECT_EQ(0, cnx.m_selectBuffer.GetNbLigne());
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());

}

TEST_F(Dispatch, ShortSelectAnswersLeaveTheRowBufferAlone) {
    OneRowBuffered(999);
    // Three parameters: the value is kept, the buffer and its flags are not touched.
    Deliver(KVN_EXECUTESELECT, {Long(0), Long(42), Long(0)});
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(42, Read(cnx.m_tabParam[0].valNum.lVal));
    EXPECT_EQ(1, cnx.m_selectBuffer.GetNbLigne());
    EXPECT_EQ(0, cnx.m_selectBuffer.IsLastLigne());
    EXPECT_TRUE(Signalled());

    // A second status of -2: no rows at all, the result is over.
    Deliver(KVN_EXECUTESELECT, {Long(0), Long(42), Long(-2), Long(1), Long(1), Long(1), Long(5)});
    EXPECT_EQ(0, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_selectBuffer.GetNbLigne());
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());
}

TEST_F(Dispatch, SelectErrorsAndMalformedAnswers) {
    Stale();
    Deliver(KVN_EXECUTESELECT, {Long(-2), Long(KVN_ERROR_ODBC)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_ODBC, cnx.m_nCodeErreur);
    EXPECT_EQ(0, cnx.m_nNbResultats);
    EXPECT_TRUE(Signalled());

    Stale();
    Deliver(KVN_EXECUTESELECT, {Text(L"0"), Long(1), Long(0), Long(1), Long(1), Long(0), Long(1)});
    ExpectMalformed();
    EXPECT_EQ(0, cnx.m_selectBuffer.GetNbLigne());
}

// ---- Rows: the next blocks ------------------------------------------------------------

TEST_F(Dispatch, NextBlockJoinsTheRowsNotYetFetched) {
    Deliver(KVN_EXECUTESELECT, SelectAnswer(1, 2, 1, Longs(1, 2)));
    Deliver(KVN_GETLINE, Concat({Long(0), Long(2), Long(2), Long(1)}, Longs(10, 4)));
    EXPECT_EQ(0, cnx.m_nResultat);
    EXPECT_TRUE(Signalled());
    CSelectBuffer& buffer = cnx.m_selectBuffer;
    EXPECT_EQ(3, buffer.GetNbLigne());
    EXPECT_EQ(0, buffer.IsLastLigne());

    Deliver(KVN_GETLINE, Concat({Long(0), Long(1), Long(2), Long(0)}, Longs(20, 3)));
    EXPECT_EQ(4, buffer.GetNbLigne());
    EXPECT_EQ(1, buffer.IsLastLigne());
    int remaining = 0;
    for (int i = 0; i < 4; ++i) buffer.Fetch(remaining);
    EXPECT_EQ((std::vector<int>{20, 21}), HeadRow(2));
}

TEST_F(Dispatch, NextBlockWithoutRowsOrWithAnErrorEndsTheRows) {
    Deliver(KVN_GETLINE, {Long(0), Long(0), Long(2), Long(1)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_NO_DATA, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());
    EXPECT_TRUE(Signalled());

    cnx.m_selectBuffer.VideBuffer();
    Deliver(KVN_GETLINE, {Long(-2), Long(KVN_ERROR_STATEMENT_CLOSED), Long(1), Long(1)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_STATEMENT_CLOSED, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());

    cnx.m_selectBuffer.VideBuffer();
    Deliver(KVN_GETLINE, {Long(0)});
    EXPECT_EQ(-2, cnx.m_nResultat);
    EXPECT_EQ(KVN_ERROR_RECEIVE, cnx.m_nCodeErreur);
    EXPECT_EQ(1, cnx.m_selectBuffer.IsLastLigne());
    EXPECT_TRUE(Signalled());
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
