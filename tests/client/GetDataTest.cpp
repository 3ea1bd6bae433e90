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

class GetData : public OperationSession {
protected:
    void SetUp() override {
        OperationSession::SetUp();
        Open([](peer::Connection& c) {
            Serve(c, KVN_EXECUTESELECT,
                  {Long(0), Long(1), Long(0), Long(1), Long(kNbCol), Long(0),
                   // the cells, in the order of Col
                   Long(42), Long(-7), Text(L"42"), Text(L"-42"), Text(L" 42"), Text(L"3.5"),
                   Text(L"", peer::kTypeChar),  // an empty WCHAR text does not travel
                   peer::Double(2.9), peer::Double(-2.9), peer::BigInt(kBig),
                   peer::Timestamp("251220241330050250"), peer::NullOf(peer::kTypeLong),
                   peer::NullOf(peer::kTypeWChar), Text(L"6f9619ff-8b86-d011-b42d-00c04fc964ff"),
                   peer::NullOf(peer::kTypeTimestamp), Text(L"texte simple", peer::kTypeChar),
                   peer::Timestamp("000000000000000000")});
        });
        int resultat = 0;
        ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select *", resultat));
        LogUpTo(4);
    }
    // Reads column col into a variable holding `before`: the code returned
    // and the value left are checked.
    template <class T>
    void Expect(int col, int code, T after, T before = T()) {
        T v = before;
        EXPECT_EQ(code, client.GetData(hCnx, col, v)) << "column " << col;
        EXPECT_EQ(after, v) << "column " << col;
    }
    int Incompatible(int col, const wchar_t* cible, const wchar_t* type, const wchar_t* val) {
        wchar_t line[256];
        std::swprintf(line, 256,
                      L"CKorvaneClient::GetData(): col %d: type de donnee incompatible (%ls "
                      L"demande %ls trouve (val = %ls))",
                      col, cible, type, val);
        return log.Count(line);
    }
};

TEST_F(GetData, NumbersFromNumbersAndDigitTexts) {
    // Read before any Fetch: the first row is the head row.
    Expect<long>(kLong42, 0, 42);
    Expect<long>(kLongNeg, 0, -7);
    Expect<long>(kTextDigits, 0, 42);
    Expect<long>(kDouble29, 0, 2);
    Expect<long>(kDoubleNeg29, 0, -2);
    Expect<long>(kBigInt, 0, 0x23456789);
    Expect<long>(kTextEmpty, 0, 77, 77);  // an empty text converts nothing
    // short keeps the low 16 bits.
    Expect<short>(kLong42, 0, 42);
    Expect<short>(kBigInt, 0, 0x6789);
    Expect<__int64>(kBigInt, 0, kBig);
    Expect<__int64>(kLongNeg, 0, -7);
    Expect<__int64>(kDoubleNeg29, 0, -2);
    Expect<__int64>(kTextDigits, 0, 42);
    Expect<double>(kDouble29, 0, 2.9);
    Expect<double>(kLong42, 0, 42.0);
    Expect<double>(kBigInt, 0, static_cast<double>(kBig));
    Expect<double>(kTextDigits, 0, 42.0);

    // The fetched row reads the same.
    ASSERT_EQ(0, client.Fetch(hCnx));
    Expect<long>(kLong42, 0, 42);
}

TEST_F(GetData, NumbersAndGuidsRefuseOtherTextsAndTypesWithALogLine) {
    Expect<long>(kTextMinus, KVN_ERROR_DATATYPE, 5, 5);
    Expect<long>(kTextBlank, KVN_ERROR_DATATYPE, 5, 5);
    Expect<long>(kTimestamp, KVN_ERROR_DATATYPE, 5, 5);
    EXPECT_EQ(1, Incompatible(kTextMinus, L"long", L"SQL_C_CHAR", L"-42"));
    EXPECT_EQ(1, Incompatible(kTextBlank, L"long", L"SQL_C_CHAR", L" 42"));
    EXPECT_EQ(1, log.CountContaining(L"col 11: type de donnee incompatible (long demande"));
    Expect<short>(kTextMinus, KVN_ERROR_DATATYPE, 3, 3);
    EXPECT_EQ(2, Incompatible(kTextMinus, L"long", L"SQL_C_CHAR", L"-42"));
    Expect<__int64>(kTextMinus, KVN_ERROR_DATATYPE, 4, 4);
    EXPECT_EQ(1, Incompatible(kTextMinus, L"int64", L"SQL_C_CHAR", L"-42"));
    Expect<double>(kTextDecimal, KVN_ERROR_DATATYPE, 1.5, 1.5);
    EXPECT_EQ(1, Incompatible(kTextDecimal, L"double", L"SQL_C_CHAR", L"3.5"));

    GUID g;
    std::memset(&g, 0x5A, sizeof g);
    GUID before = g;
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kTextDigits, g));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, kLong42, g));
    EXPECT_EQ(0, std::memcmp(&before, &g, sizeof g));
    EXPECT_EQ(1, Incompatible(kLong42, L"GUID", L"SQL_C_LONG", L"42"));
}

TEST_F(GetData, NullGivesEachOverloadsNullValue) {
    Expect<long>(kNullLong, KVN_NULL_DATA, 101);
    Expect<short>(kNullLong, KVN_NULL_DATA, 9, 9);  // left alone
    Expect<__int64>(kNullLong, KVN_NULL_DATA, 101);
    Expect<double>(kNullText, KVN_NULL_DATA, 101.0);

    DStr ds(L"avant");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, ds));
    EXPECT_EQ(0, ds.Length());
    CString cs(L"avant");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullLong, cs));
    EXPECT_EQ(0, cs.GetLength());
    wchar_t buffer[8] = L"avant";
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, buffer));
    EXPECT_STREQ(L"", buffer);

    GUID g, nil;
    std::memset(&g, 0xAB, sizeof g);
    std::memset(&nil, 0, sizeof nil);
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullText, g));
    EXPECT_EQ(0, std::memcmp(&nil, &g, sizeof g));
    SYSTEMTIME st, zero;
    std::memset(&st, 0xAB, sizeof st);
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, kNullTimestamp, st));
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));

    CParam p;
    EXPECT_EQ(0, client.GetData(hCnx, kNullLong, p));
    EXPECT_NE(0, static_cast<int>(p.bNull));  // packed field: read by value
    EXPECT_EQ(SQL_C_LONG, p.cType);
}

TEST_F(GetData, TextsOfEveryType) {
    const struct {
        int col;
        const wchar_t* text;
    } cases[] = {{kLongNeg, L"-7"},         {kBigInt, L"4886718345"},
                 {kDouble29, L"2.900000"},  {kTextMinus, L"-42"},
                 {kCharText, L"texte simple"}};
    DStr t;
    for (const auto& k : cases) {
        EXPECT_EQ(0, client.GetData(hCnx, k.col, t));
        EXPECT_STREQ(k.text, t.GetString());
    }
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

TEST_F(GetData, GuidFromItsTextDateFromTimestampAndCParamAsACopy) {
    GUID g;
    std::memset(&g, 0, sizeof g);
    EXPECT_EQ(0, client.GetData(hCnx, kGuidText, g));
    EXPECT_EQ(0x6f9619ffu, g.Data1);
    EXPECT_EQ(0x8b86, g.Data2);
    EXPECT_EQ(0xd011, g.Data3);
    EXPECT_EQ(0xb4, g.Data4[0]);
    EXPECT_EQ(0xff, g.Data4[7]);

    SYSTEMTIME st, zero;
    std::memset(&st, 0xAB, sizeof st);
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, client.GetData(hCnx, kTimestamp, st));
    const WORD expected[] = {2024, 12, 0, 25, 13, 30, 5, 250};  // wDayOfWeek is 0
    EXPECT_EQ(0, std::memcmp(expected, &st, sizeof st));
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, st)) << "anything else gives zeros";
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));

    CParam p;
    EXPECT_EQ(0, client.GetData(hCnx, kTextMinus, p));
    EXPECT_EQ(SQL_C_WCHAR, p.cType);
    EXPECT_EQ(0, static_cast<int>(p.bNull));
    EXPECT_STREQ(L"-42", p.pszValeur);
    EXPECT_EQ(0, client.GetData(hCnx, kDouble29, p));
    EXPECT_DOUBLE_EQ(2.9, static_cast<double>(p.valNum.dVal));
}

TEST_F(GetData, ColumnsAndRowsThatAreNotThere) {
    Expect<long>(0, KVN_NO_DATA, 8, 8);
    Expect<long>(-1, KVN_NO_DATA, 8, 8);
    DStr t(L"inchange");
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, kNbCol + 1, t));
    EXPECT_STREQ(L"inchange", t.GetString());

    ASSERT_EQ(0, client.Fetch(hCnx));
    ASSERT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    Expect<long>(kLong42, KVN_NO_DATA, 8, 8);

    long v = 0;
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
