// Reading the columns of the current row: every overload on every kind of
// value the service sends, NULL values, the conversions refused with their
// log line, and columns or rows that are not there.
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "support/OperationSession.h"

namespace {

using peer::Long;
using peer::Text;
using peer::Value;

// The columns of the one row of the select that every test reads.
enum Col {
    kLong42 = 1,
    kLongNeg,
    kTextDigits,
    kTextMinus,
    kTextBlank,
    kTextDecimal,
    kTextEmpty,
    kDouble29,
    kDoubleNeg29,
    kBigInt,
    kTimestamp,
    kNullLong,
    kNullText,
    kGuidText,
    kNullTimestamp,
    kCharText,
    kImpossibleDate,
    kNbCol = kImpossibleDate
};

const long long kBig = 0x123456789LL;  // low 32 bits: 0x23456789

std::vector<Value> Cells() {
    return {Long(42),
            Long(-7),
            Text(L"42"),
            Text(L"-42"),
            Text(L" 42"),
            Text(L"3.5"),
            Text(L"", peer::kTypeChar),  // an empty WCHAR text does not travel
            peer::Double(2.9),
            peer::Double(-2.9),
            peer::BigInt(kBig),
            peer::Timestamp("251220241330050250"),
            peer::NullOf(peer::kTypeLong),
            peer::NullOf(peer::kTypeWChar),
            Text(L"6f9619ff-8b86-d011-b42d-00c04fc964ff"),
            peer::NullOf(peer::kTypeTimestamp),
            Text(L"texte simple", peer::kTypeChar),
            peer::Timestamp("000000000000000000")};
}

class GetData : public OperationSession {
protected:
    void SetUp() override {
        OperationSession::SetUp();
        Open([](peer::Connection& c) {
            std::vector<Value> answer = {Long(0), Long(1), Long(0), Long(1), Long(kNbCol), Long(0)};
            for (const Value& v : Cells()) answer.push_back(v);
            Serve(c, KVN_EXECUTESELECT, answer);
        });
        int resultat = 0;
        ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select *", resultat));
        LogUpTo(4);
    }
    std::wstring Incompatible(int col, const wchar_t* cible, const wchar_t* type,
                              const wchar_t* val) {
        wchar_t line[256];
        std::swprintf(line, 256,
                      L"CKorvaneClient::GetData(): col %d: type de donnee incompatible (%ls "
                      L"demande %ls trouve (val = %ls))",
                      col, cible, type, val);
        return line;
    }
};

TEST_F(GetData, LongFromNumbersAndDigitTexts) {
    // Read before any Fetch: the first row is the head row.
    long v = 0;
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, v));
    EXPECT_EQ(42, v);
    EXPECT_EQ(0, client.GetData(hCnx, kLongNeg, v));
    EXPECT_EQ(-7, v);
    v = 0;
    EXPECT_EQ(0, client.GetData(hCnx, kTextDigits, v));
    EXPECT_EQ(42, v);
    EXPECT_EQ(0, client.GetData(hCnx, kDouble29, v));
    EXPECT_EQ(2, v);
    EXPECT_EQ(0, client.GetData(hCnx, kDoubleNeg29, v));
    EXPECT_EQ(-2, v);
    EXPECT_EQ(0, client.GetData(hCnx, kBigInt, v));
    EXPECT_EQ(0x23456789, v);
    v = 77;
    EXPECT_EQ(0, client.GetData(hCnx, kTextEmpty, v));
    EXPECT_EQ(77, v) << "an empty text converts nothing";

    // The fetched row reads the same.
    ASSERT_EQ(0, client.Fetch(hCnx));
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, v));
    EXPECT_EQ(42, v);
}

TEST_F(GetData, LongRefusesSignsBlanksAndOtherTypesWithALogLine) {
    long v = 5;
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextMinus, v));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextBlank, v));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTimestamp, v));
    EXPECT_EQ(5, v);
    EXPECT_EQ(1, log.Count(Incompatible(kTextMinus, L"long", L"SQL_C_CHAR", L"-42")));
    EXPECT_EQ(1, log.Count(Incompatible(kTextBlank, L"long", L"SQL_C_CHAR", L" 42")));
    EXPECT_EQ(1, log.CountContaining(L"col 11: type de donnee incompatible (long demande"));

    short s = 3;
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextMinus, s));
    EXPECT_EQ(3, s);
    EXPECT_EQ(2, log.Count(Incompatible(kTextMinus, L"long", L"SQL_C_CHAR", L"-42")));
}

TEST_F(GetData, ShortKeepsTheLow16BitsAndLeavesItsVariableAloneOnNull) {
    short s = 0;
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, s));
    EXPECT_EQ(42, s);
    EXPECT_EQ(0, client.GetData(hCnx, kBigInt, s));
    EXPECT_EQ(0x6789, s);
    s = 9;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullLong, s));
    EXPECT_EQ(9, s);
}

TEST_F(GetData, Int64AndDouble) {
    __int64 ll = 0;
    EXPECT_EQ(0, client.GetData(hCnx, kBigInt, ll));
    EXPECT_EQ(kBig, ll);
    EXPECT_EQ(0, client.GetData(hCnx, kLongNeg, ll));
    EXPECT_EQ(-7, ll);
    EXPECT_EQ(0, client.GetData(hCnx, kDoubleNeg29, ll));
    EXPECT_EQ(-2, ll);
    EXPECT_EQ(0, client.GetData(hCnx, kTextDigits, ll));
    EXPECT_EQ(42, ll);
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextMinus, ll));
    EXPECT_EQ(1, log.Count(Incompatible(kTextMinus, L"int64", L"SQL_C_CHAR", L"-42")));

    double d = 0;
    EXPECT_EQ(0, client.GetData(hCnx, kDouble29, d));
    EXPECT_DOUBLE_EQ(2.9, d);
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, d));
    EXPECT_DOUBLE_EQ(42.0, d);
    EXPECT_EQ(0, client.GetData(hCnx, kBigInt, d));
    EXPECT_DOUBLE_EQ(static_cast<double>(kBig), d);
    EXPECT_EQ(0, client.GetData(hCnx, kTextDigits, d));
    EXPECT_DOUBLE_EQ(42.0, d);
    d = 1.5;
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextDecimal, d));
    EXPECT_DOUBLE_EQ(1.5, d);
    EXPECT_EQ(1, log.Count(Incompatible(kTextDecimal, L"double", L"SQL_C_CHAR", L"3.5")));
}

TEST_F(GetData, NullGivesEachOverloadsNullValue) {
    long l = 0;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullLong, l));
    EXPECT_EQ(101, l);
    __int64 ll = 0;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullLong, ll));
    EXPECT_EQ(101, ll);
    double d = 0;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, d));
    EXPECT_DOUBLE_EQ(101.0, d);

    DStr ds(L"avant");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, ds));
    EXPECT_EQ(0, ds.Length());
    CString cs(L"avant");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullLong, cs));
    EXPECT_EQ(0, cs.GetLength());
    wchar_t buffer[8] = L"avant";
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, buffer));
    EXPECT_STREQ(L"", buffer);

    GUID g;
    std::memset(&g, 0xAB, sizeof g);
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, g));
    GUID nil;
    std::memset(&nil, 0, sizeof nil);
    EXPECT_EQ(0, std::memcmp(&nil, &g, sizeof g));

    SYSTEMTIME st;
    std::memset(&st, 0xAB, sizeof st);
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullTimestamp, st));
    SYSTEMTIME zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));

    CParam p;
    EXPECT_EQ(0, client.GetData(hCnx, kNullLong, p));
    EXPECT_NE(0, static_cast<int>(p.bNull));  // packed field: read by value
    EXPECT_EQ(SQL_C_LONG, p.cType);
}

TEST_F(GetData, TextsOfEveryType) {
    DStr t;
    EXPECT_EQ(0, client.GetData(hCnx, kLongNeg, t));
    EXPECT_STREQ(L"-7", t.GetString());
    EXPECT_EQ(0, client.GetData(hCnx, kBigInt, t));
    EXPECT_STREQ(L"4886718345", t.GetString());
    EXPECT_EQ(0, client.GetData(hCnx, kDouble29, t));
    EXPECT_STREQ(L"2.900000", t.GetString());
    EXPECT_EQ(0, client.GetData(hCnx, kTextMinus, t));
    EXPECT_STREQ(L"-42", t.GetString());
    EXPECT_EQ(0, client.GetData(hCnx, kCharText, t));
    EXPECT_STREQ(L"texte simple", t.GetString());
    EXPECT_EQ(0, client.GetData(hCnx, kTimestamp, t));
    EXPECT_GT(t.Length(), 0);
#ifndef _WIN32
    EXPECT_STREQ(L"2024-12-25 13:30:05", t.GetString());
#endif
    // An impossible date leaves the text as it was.
    t = L"inchange";
    EXPECT_EQ(0, client.GetData(hCnx, kImpossibleDate, t));
    EXPECT_STREQ(L"inchange", t.GetString());

    CString c;
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, c));
    EXPECT_STREQ(L"42", c.GetString());
}

// The caller's buffer gets the text and its terminator, and not one
// character more.
TEST_F(GetData, CallerBufferReceivesExactlyTheTextAndItsTerminator) {
    wchar_t buffer[16];
    for (wchar_t& ch : buffer) ch = L'#';
    EXPECT_EQ(0, client.GetData(hCnx, kTextMinus, buffer));
    EXPECT_STREQ(L"-42", buffer);
    for (int i = 4; i < 16; i++) EXPECT_EQ(L'#', buffer[i]) << "index " << i;

    for (wchar_t& ch : buffer) ch = L'#';
    EXPECT_EQ(0, client.GetData(hCnx, kTextEmpty, buffer));
    EXPECT_EQ(L'\0', buffer[0]);
    EXPECT_EQ(L'#', buffer[1]);

    EXPECT_EQ(KVN_ERROR_PARAMETER, client.GetData(hCnx, kLong42, static_cast<wchar_t*>(nullptr)));
}

TEST_F(GetData, GuidFromItsTextOnly) {
    GUID g;
    std::memset(&g, 0, sizeof g);
    EXPECT_EQ(0, client.GetData(hCnx, kGuidText, g));
    EXPECT_EQ(0x6f9619ffu, g.Data1);
    EXPECT_EQ(0x8b86, g.Data2);
    EXPECT_EQ(0xd011, g.Data3);
    EXPECT_EQ(0xb4, g.Data4[0]);
    EXPECT_EQ(0xff, g.Data4[7]);

    GUID before = g;
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextDigits, g));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kLong42, g));
    EXPECT_EQ(0, std::memcmp(&before, &g, sizeof g));
    EXPECT_EQ(1, log.Count(Incompatible(kLong42, L"GUID", L"SQL_C_LONG", L"42")));
}

TEST_F(GetData, DateFromTimestampAndZerosFromAnythingElse) {
    SYSTEMTIME st;
    std::memset(&st, 0xAB, sizeof st);
    EXPECT_EQ(0, client.GetData(hCnx, kTimestamp, st));
    EXPECT_EQ(2024, st.wYear);
    EXPECT_EQ(12, st.wMonth);
    EXPECT_EQ(25, st.wDay);
    EXPECT_EQ(13, st.wHour);
    EXPECT_EQ(30, st.wMinute);
    EXPECT_EQ(5, st.wSecond);
    EXPECT_EQ(0, st.wDayOfWeek);
    EXPECT_EQ(250, st.wMilliseconds);

    EXPECT_EQ(0, client.GetData(hCnx, kLong42, st));
    SYSTEMTIME zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));
}

TEST_F(GetData, CParamIsACopyOfTheValue) {
    CParam p;
    EXPECT_EQ(0, client.GetData(hCnx, kTextMinus, p));
    EXPECT_EQ(SQL_C_WCHAR, p.cType);
    EXPECT_EQ(0, static_cast<int>(p.bNull));
    EXPECT_STREQ(L"-42", p.pszValeur);
    EXPECT_EQ(0, client.GetData(hCnx, kDouble29, p));
    EXPECT_DOUBLE_EQ(2.9, static_cast<double>(p.valNum.dVal));
}

TEST_F(GetData, ColumnsAndRowsThatAreNotThere) {
    long v = 8;
    DStr t(L"inchange");
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 0, v));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, -1, v));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, kNbCol + 1, t));
    EXPECT_EQ(8, v);
    EXPECT_STREQ(L"inchange", t.GetString());

    ASSERT_EQ(0, client.Fetch(hCnx));
    ASSERT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, kLong42, v));
    EXPECT_EQ(8, v);

    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetData(hCnx + 1, 1, v));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 7  "));
    wchar_t buffer[4] = L"abc";
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetData(hCnx + 1, 1, buffer));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 11 "));
    __int64 ll = 0;
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetData(hCnx + 1, 1, ll));
    EXPECT_EQ(0, debugger.CountContaining(L"KVN_ERROR_HANDLE_CNX 0"));

    client.SetAllConnected(FALSE);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.GetData(hCnx, kLong42, v));
    client.SetAllConnected(TRUE);
}

}  // namespace
