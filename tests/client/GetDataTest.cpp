// Reading the columns of the current row where the conversions have their
// edges: the bits kept, the texts refused with their log line, dates the
// service cannot mean, the caller's buffer, and columns or connections that
// are not there.
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "support/OperationSession.h"

namespace {

using peer::Text;

// The columns of the one row of the select that every test reads.
enum Col {
    kLong42 = 1,
    kTextDigits,
    kTextMinus,
    kTextBlank,
    kTextDecimal,
    kTextEmpty,
    kDoubleNeg29,
    kBigInt,
    kTimestamp,
    kCharText,
    kImpossibleDate,
    kAstral,
    kNbCol = kAstral
};

const long long kBig = 0x123456789LL;  // low 32 bits: 0x23456789

class GetData : public OperationSession {
protected:
    void SetUp() override {
        OperationSession::SetUp();
        Open([](peer::Connection& c) {
            using peer::Long;
            Serve(c, KVN_EXECUTESELECT,
                  {Long(0), Long(1), Long(0), Long(1), Long(kNbCol), Long(0),
                   // the cells, in the order of Col
                   Long(42), Text(L"42"), Text(L"-42"), Text(L" 42"), Text(L"3.5"),
                   Text(L"", peer::kTypeChar),  // an empty WCHAR text does not travel
                   peer::Double(-2.9), peer::BigInt(kBig), peer::Timestamp("251220241330050250"),
                   Text(L"texte simple", peer::kTypeChar), peer::Timestamp("000000000000000000"),
                   Text(L"a\U0001F680b")});
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

TEST_F(GetData, NumbersKeepTheirLowBitsAndOtherTextsAreRefusedWithALogLine) {
    Expect<short>(kBigInt, 0, 0x6789);
    Expect<__int64>(kDoubleNeg29, 0, -2);
    Expect<__int64>(kTextDigits, 0, 42);
    Expect<double>(kBigInt, 0, static_cast<double>(kBig));

    Expect<long>(kTextMinus, KVN_ERROR_DATATYPE, 5, 5);
    Expect<long>(kTextBlank, KVN_ERROR_DATATYPE, 5, 5);
    Expect<long>(kTimestamp, KVN_ERROR_DATATYPE, 5, 5);
    EXPECT_EQ(1, Incompatible(kTextMinus, L"long", L"SQL_C_CHAR", L"-42"));
    EXPECT_EQ(1, Incompatible(kTextBlank, L"long", L"SQL_C_CHAR", L" 42"));
    EXPECT_EQ(1, log.CountContaining(L"col 9: type de donnee incompatible (long demande"));
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

TEST_F(GetData, TextsDatesAndTheCallersBufferAtTheirEdges) {
    DStr t;
    EXPECT_EQ(0, client.GetData(hCnx, kCharText, t));
    EXPECT_STREQ(L"texte simple", t.GetString());
    // An impossible date leaves the text as it was.
    t = L"inchange";
    EXPECT_EQ(0, client.GetData(hCnx, kImpossibleDate, t));
    EXPECT_STREQ(L"inchange", t.GetString());

    SYSTEMTIME st, zero;
    std::memset(&st, 0xAB, sizeof st);
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, client.GetData(hCnx, kTimestamp, st));
    const WORD expected[] = {2024, 12, 0, 25, 13, 30, 5, 250};  // wDayOfWeek is 0
    EXPECT_EQ(0, std::memcmp(expected, &st, sizeof st));
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, st)) << "anything else gives zeros";
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));

    // The buffer gets the terminator of an empty text and not one character more.
    wchar_t buffer[4] = L"###";
    EXPECT_EQ(0, client.GetData(hCnx, kTextEmpty, buffer));
    EXPECT_EQ(L'\0', buffer[0]);
    EXPECT_EQ(L'#', buffer[1]);

    // With its capacity, the buffer gets at most that many characters, its
    // terminator included, and the caller learns the whole length.
    wchar_t bounded[8];
    std::wmemset(bounded, L'#', 8);
    int longueur = -1;
    EXPECT_EQ(KVN_DATA_TRUNCATED, client.GetData(hCnx, kCharText, bounded, 5, &longueur));
    EXPECT_EQ(std::wstring(L"text\0###", 8), std::wstring(bounded, 8));
    EXPECT_EQ(12, longueur);
    EXPECT_EQ(KVN_DATA_TRUNCATED, client.GetData(hCnx, kLong42, bounded, 2, &longueur));
    EXPECT_STREQ(L"4", bounded);
    EXPECT_EQ(0, client.GetData(hCnx, kLong42, bounded, 3, &longueur));
    EXPECT_STREQ(L"42", bounded);
    EXPECT_EQ(2, longueur);
    // Where wchar_t is 16 bits a pair of surrogates is kept whole or not at all.
    EXPECT_EQ(KVN_DATA_TRUNCATED, client.GetData(hCnx, kAstral, bounded, 3, nullptr));
    EXPECT_STREQ(sizeof(wchar_t) == 2 ? L"a" : L"a\U0001F680", bounded);
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.GetData(hCnx, kCharText, bounded, 0, &longueur));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.GetData(hCnx, kCharText, nullptr, 8, &longueur));
}

TEST_F(GetData, ColumnsAndConnectionsThatAreNotThere) {
    Expect<long>(0, KVN_NO_DATA, 8, 8);
    DStr t(L"inchange");
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, kNbCol + 1, t));
    EXPECT_STREQ(L"inchange", t.GetString());

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
