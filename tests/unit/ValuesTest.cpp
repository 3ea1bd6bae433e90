// Typed values: what assignment copies, keeps and releases, who frees a
// stored-procedure parameter's variable, the text of a value and the names
// of the value types.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include <korvane/CParam.h>

#include "protocol/ValueText.h"

// The fields of the packed value structures are read with a unary + in the
// assertions: gtest binds references to its arguments, and a reference to a
// packed field may be misaligned, so the assertions compare copies.

namespace {

void SetText(CParam& p, const wchar_t* text, signed char type = SQL_C_WCHAR) {
    delete[] p.pszValeur;
    std::size_t n = std::wcslen(text);
    p.pszValeur = new wchar_t[n + 1];
    std::wmemcpy(p.pszValeur, text, n + 1);
    p.cType = type;
    p.nTaille = static_cast<short>(n);
    p.bNull = 0;
}

CParam Long(std::int32_t v) {
    CParam p;
    p.cType = SQL_C_LONG;
    p.nTaille = 4;
    p.valNum.lVal = v;
    return p;
}

KvnTimestamp Moment(int y, int mo, int d, int h, int mi, int s, unsigned f) {
    KvnTimestamp t;
    t.year = static_cast<std::int16_t>(y);
    t.month = static_cast<std::uint16_t>(mo);
    t.day = static_cast<std::uint16_t>(d);
    t.hour = static_cast<std::uint16_t>(h);
    t.minute = static_cast<std::uint16_t>(mi);
    t.second = static_cast<std::uint16_t>(s);
    t.fraction = f;
    return t;
}

GUID SomeGuid() {
    GUID g;
    g.Data1 = 0x12345678;
    g.Data2 = 0x9ABC;
    g.Data3 = 0xDEF0;
    for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<unsigned char>(0xA0 + i);
    return g;
}

// The GUID field is packed: it is read and written byte-wise.
GUID GuidOf(const CParam& p) {
    GUID g;
    std::memcpy(&g, &p.guidValeur, sizeof g);
    return g;
}

void SetGuid(CParam& p, const GUID& g) { std::memcpy(&p.guidValeur, &g, sizeof g); }

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

std::wstring Text(const CParam& p, int quoted = 0) {
    DStr s;
    ParamValeurToDStr(&p, s, quoted);
    return s.GetString();
}

}  // namespace

TEST(ParamConstruction, StartsEmpty) {
    CParam p;
    EXPECT_EQ(0, +p.cType);
    EXPECT_EQ(0, +p.nTaille);
    EXPECT_EQ(0, +p.bNull);
    EXPECT_EQ(0, +p.valNum.llVal);
    EXPECT_EQ(nullptr, +p.pszValeur);
    GUID zero = {};
    EXPECT_TRUE(SameGuid(zero, GuidOf(p)));
    EXPECT_EQ(0, +p.dateValeur.year);
    EXPECT_EQ(0u, +p.dateValeur.fraction);

    CParamProc proc;
    EXPECT_EQ(KVN_PARAM_IN, +proc.nSens);
    EXPECT_EQ(nullptr, +proc.pVariable);
    EXPECT_EQ(0, +proc.bVariableAllouee);
}

TEST(ParamAssignment, NullReleasesTheTextButKeepsTheOtherSlots) {
    CParam target;
    SetText(target, L"old text");
    target.valNum.llVal = 0x1122334455667788LL;
    target.dateValeur = Moment(2006, 3, 7, 14, 5, 9, 0);

    CParam nullLong;
    nullLong.cType = SQL_C_LONG;
    nullLong.bNull = 1;
    target = nullLong;

    EXPECT_EQ(SQL_C_LONG, +target.cType);
    EXPECT_EQ(1, +target.bNull);
    EXPECT_EQ(nullptr, +target.pszValeur);
    EXPECT_EQ(0x1122334455667788LL, +target.valNum.llVal);
    EXPECT_EQ(2006, +target.dateValeur.year);
}

TEST(ParamAssignment, AShorterTextReusesTheBufferALongerOneReplacesIt) {
    CParam target;
    SetText(target, L"a rather long text");
    wchar_t* buffer = target.pszValeur;

    CParam shorter;
    SetText(shorter, L"short");
    target = shorter;
    EXPECT_EQ(buffer, +target.pszValeur);
    EXPECT_STREQ(L"short", target.pszValeur);
    EXPECT_NE(+shorter.pszValeur, +target.pszValeur);

    // "short" now sits in a big buffer, but a text as long as it (or longer)
    // no longer fits the rule and gets a buffer of its own size.
    CParam same;
    SetText(same, L"SHORT");
    target = same;
    EXPECT_STREQ(L"SHORT", target.pszValeur);

    CParam longer;
    SetText(longer, L"a text longer than any before it");
    target = longer;
    EXPECT_STREQ(L"a text longer than any before it", target.pszValeur);
    EXPECT_EQ(+longer.nTaille, +target.nTaille);
}

TEST(ParamAssignment, EachTypeClearsTheSlotsItDoesNotUse) {
    CParam date;
    date.cType = SQL_C_TIMESTAMP;
    date.nTaille = 18;
    date.dateValeur = Moment(2006, 3, 7, 14, 5, 9, 12);

    CParam target = Long(42);
    target = date;
    EXPECT_EQ(0, +target.valNum.llVal);
    EXPECT_EQ(7, +target.dateValeur.day);
    EXPECT_EQ(12u, +target.dateValeur.fraction);

    CParam text;
    SetText(text, L"abc", SQL_C_CHAR);
    target = text;
    EXPECT_EQ(0, +target.dateValeur.year);
    EXPECT_EQ(0, +target.valNum.llVal);
    EXPECT_STREQ(L"abc", target.pszValeur);

    // A number keeps the text buffer that is already there.
    wchar_t* buffer = target.pszValeur;
    target = Long(-5);
    EXPECT_EQ(-5, +target.valNum.lVal);
    EXPECT_EQ(buffer, +target.pszValeur);
}

TEST(ParamAssignment, TheGuidIsCopiedOnlyForAGuidValue) {
    CParam guid;
    guid.cType = SQL_C_GUID;
    guid.nTaille = 16;
    SetGuid(guid, SomeGuid());

    CParam target;
    target = Long(3);
    GUID zero = {};
    EXPECT_TRUE(SameGuid(zero, GuidOf(target)));
    target = guid;
    EXPECT_TRUE(SameGuid(SomeGuid(), GuidOf(target)));
    target = Long(4);  // keeps the GUID it held
    EXPECT_TRUE(SameGuid(SomeGuid(), GuidOf(target)));

    CParam nullGuid = guid;
    nullGuid.bNull = 1;
    SetGuid(nullGuid, zero);
    target = nullGuid;
    EXPECT_TRUE(SameGuid(SomeGuid(), GuidOf(target)));
}

TEST(ParamAssignment, CopiesAreDeepAndSelfAssignmentIsHarmless) {
    CParam original;
    SetText(original, L"kept apart");
    CParam copy(original);
    EXPECT_NE(+original.pszValeur, +copy.pszValeur);
    EXPECT_STREQ(L"kept apart", copy.pszValeur);

    CParam& alias = copy;
    copy = alias;
    EXPECT_STREQ(L"kept apart", copy.pszValeur);
}

TEST(ParamProcAssignment, FromAPlainValueTheDirectionBecomesInAndAnOwnedVariableIsFreed) {
    CParamProc target;
    target.nSens = KVN_PARAM_OUT;
    target.pVariable = std::malloc(4);
    target.bVariableAllouee = 1;

    target = Long(9);
    EXPECT_EQ(KVN_PARAM_IN, +target.nSens);
    EXPECT_EQ(nullptr, +target.pVariable);
    EXPECT_EQ(1, +target.bVariableAllouee);
    EXPECT_EQ(9, +target.valNum.lVal);
}

TEST(ParamProcAssignment, AnApplicationVariableIsSharedNotTaken) {
    std::int32_t variable = 5;
    CParamProc src;
    static_cast<CParam&>(src) = Long(1);
    src.nSens = KVN_PARAM_INOUT;
    src.pVariable = &variable;

    CParamProc target;
    target = src;
    EXPECT_EQ(KVN_PARAM_INOUT, +target.nSens);
    EXPECT_EQ(&variable, +target.pVariable);
    EXPECT_EQ(0, +target.bVariableAllouee);

    CParamProc copy(src);
    EXPECT_EQ(&variable, +copy.pVariable);
    EXPECT_EQ(0, +copy.bVariableAllouee);
}

// Each owner frees its own block once; run under the address sanitizer a
// shared block would be reported as freed twice.
TEST(ParamProcAssignment, AnOwnedVariableIsCopiedSoThatEachIsFreedOnce) {
    CParamProc src;
    src.cType = SQL_C_DOUBLE;
    src.nTaille = 8;
    double* value = static_cast<double*>(std::malloc(sizeof(double)));
    *value = 2.5;
    src.pVariable = value;
    src.bVariableAllouee = 1;

    CParamProc target;
    target.pVariable = std::malloc(16);  // its own former variable is freed
    target.bVariableAllouee = 1;
    target = src;
    ASSERT_NE(nullptr, +target.pVariable);
    EXPECT_NE(+src.pVariable, +target.pVariable);
    EXPECT_EQ(1, +target.bVariableAllouee);
    EXPECT_EQ(2.5, *static_cast<double*>(+target.pVariable));

    CParamProc copy(src);
    EXPECT_NE(+src.pVariable, +copy.pVariable);
    EXPECT_EQ(1, +copy.bVariableAllouee);

    // A type with no variable size: the target only refers to it.
    CParamProc odd;
    odd.cType = 0x07;
    odd.pVariable = std::malloc(3);
    odd.bVariableAllouee = 1;
    CParamProc referring(odd);
    EXPECT_EQ(+odd.pVariable, +referring.pVariable);
    EXPECT_EQ(0, +referring.bVariableAllouee);
}

TEST(ValueText, RendersEachType) {
    EXPECT_EQ(L"-3", Text(Long(-3)));

    CParam d;
    d.cType = SQL_C_DOUBLE;
    d.valNum.dVal = 2.5;
    EXPECT_EQ(L"2.500000", Text(d));

    CParam big;
    big.cType = SQL_C_SBIGINT;
    big.valNum.llVal = INT64_MIN;
    EXPECT_EQ(L"-9223372036854775808", Text(big));

    CParam date;
    date.cType = SQL_C_TIMESTAMP;
    date.dateValeur = Moment(2006, 3, 7, 14, 5, 9, 0);
    EXPECT_EQ(L"07/03/2006 14:05:09:0000", Text(date));

    CParam guid;
    guid.cType = SQL_C_GUID;
    SetGuid(guid, SomeGuid());
    EXPECT_EQ(L"12345678-9abc-def0-a0a1-a2a3a4a5a6a7", Text(guid));

    CParam text;
    SetText(text, L"abc");
    EXPECT_EQ(L"abc", Text(text));
    EXPECT_EQ(L"\"abc\"", Text(text, 1));

    CParam nullText = text;
    nullText.bNull = 1;
    EXPECT_EQ(L"NULL", Text(nullText, 1));

    CParam unknown = Long(1);
    unknown.cType = static_cast<signed char>(SQL_C_UBIGINT);
    EXPECT_EQ(L"", Text(unknown));

    CParam lostText;  // a text whose buffer could not be allocated
    lostText.cType = SQL_C_CHAR;
    EXPECT_EQ(L"", Text(lostText));
}

TEST(ValueText, IntoABufferOnlyWhenItFits) {
    wchar_t buffer[32];
    CParam nullValue;
    nullValue.cType = SQL_C_LONG;
    nullValue.bNull = 1;

    int capacity = 5;
    ParamValeurToBuffer(&nullValue, buffer, &capacity, 0);
    EXPECT_STREQ(L"NULL", buffer);
    capacity = 4;
    ParamValeurToBuffer(&nullValue, buffer, &capacity, 0);
    EXPECT_STREQ(L"", buffer);

    std::wcscpy(buffer, L"untouched");
    capacity = 0;
    ParamValeurToBuffer(&nullValue, buffer, &capacity, 0);
    EXPECT_STREQ(L"untouched", buffer);

    CParam text;
    SetText(text, L"twenty characters..x");
    ASSERT_EQ(20u, std::wcslen(text.pszValeur));
    capacity = 19;
    ParamValeurToBuffer(&text, buffer, &capacity, 0);
    EXPECT_STREQ(L"untouched", buffer);
    EXPECT_EQ(20, capacity);
    ParamValeurToBuffer(&text, buffer, &capacity, 0);
    EXPECT_STREQ(L"twenty characters..x", buffer);

    capacity = 21;
    ParamValeurToBuffer(&text, buffer, &capacity, 1);  // quoted: 22 characters
    EXPECT_EQ(22, capacity);
}

TEST(TypeNames, BothStylesAndBothSpellings) {
    wchar_t nom[17];
    EXPECT_STREQ(L"CHAR", GetNomType(248, nom, 0));
    EXPECT_STREQ(L"SQL_C_CHAR", GetNomType(248, nom, 1));
    EXPECT_STREQ(L"SQL_C_CHAR", GetNomType(SQL_C_WCHAR, nom, 1));
    EXPECT_STREQ(L"CHAR", GetNomType(1, nom, 0));
    EXPECT_STREQ(L"LONG", GetNomType(4, nom, 0));
    EXPECT_STREQ(L"SQL_C_DOUBLE", GetNomType(8, nom, 1));
    EXPECT_STREQ(L"DECIMAL", GetNomType(8, nom, 0));
    EXPECT_STREQ(L"DATE", GetNomType(11, nom, 0));
    EXPECT_STREQ(L"SQL_C_TIMESTAMP", GetNomType(11, nom, 1));
    EXPECT_STREQ(L"BIGINT", GetNomType(SQL_C_SBIGINT, nom, 0));
    EXPECT_STREQ(L"SQL_C_SBIGINT", GetNomType(231, nom, 1));
    EXPECT_STREQ(L"UNIQUEIDENTIFIER", GetNomType(SQL_C_GUID, nom, 0));
    EXPECT_STREQ(L"SQL_GUID", GetNomType(245, nom, 1));
    EXPECT_STREQ(L"INCONNU", GetNomType(0, nom, 0));
    EXPECT_STREQ(L"INCONNU", GetNomType(229, nom, 1));
    EXPECT_STREQ(L"INCONNU", GetNomType(248 + 256, nom, 1));
}
