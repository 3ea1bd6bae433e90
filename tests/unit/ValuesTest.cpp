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

#include "UnitUtil.h"
#include "protocol/ValueText.h"

// The fields of the packed value structures are read with a unary + in the
// assertions: gtest binds references to its arguments, and a reference to a
// packed field may be misaligned, so the assertions compare copies.

namespace {

using kvnunit::SameGuid;
using kvnunit::SampleGuid;

CParam Text(const wchar_t* text, signed char type = SQL_C_WCHAR) {
    CParam p;
    std::size_t n = std::wcslen(text);
    p.pszValeur = new wchar_t[n + 1];
    std::wmemcpy(p.pszValeur, text, n + 1);
    p.cType = type;
    p.nTaille = static_cast<short>(n);
    return p;
}

CParam Value(signed char type, std::int64_t llVal = 0, short size = 0) {
    CParam p;
    p.cType = type;
    p.nTaille = size;
    p.valNum.llVal = llVal;
    return p;
}

CParam Long(std::int32_t v) {
    CParam p = Value(SQL_C_LONG, 0, 4);
    p.valNum.lVal = v;
    return p;
}

// The GUID field is packed: it is read and written byte-wise.
GUID GuidOf(const CParam& p) {
    GUID g;
    std::memcpy(&g, &p.guidValeur, sizeof g);
    return g;
}
void SetGuid(CParam& p, const GUID& g) { std::memcpy(&p.guidValeur, &g, sizeof g); }

std::wstring Rendered(const CParam& p, int quoted = 0) {
    DStr s;
    ParamValeurToDStr(&p, s, quoted);
    return s.GetString();
}

}  // namespace

TEST(ParamAssignment, AShorterTextReusesTheBufferALongerOneReplacesIt) {
    CParam target = Text(L"a rather long text");
    wchar_t* buffer = target.pszValeur;
    CParam shorter = Text(L"short");
    target = shorter;
    EXPECT_EQ(buffer, +target.pszValeur);
    EXPECT_STREQ(L"short", target.pszValeur);
    EXPECT_NE(+shorter.pszValeur, +target.pszValeur);

    // "short" now sits in a big buffer, but a text as long as it (or longer)
    // no longer fits the rule and gets a buffer of its own size.
    target = Text(L"SHORT");
    EXPECT_STREQ(L"SHORT", target.pszValeur);
    CParam longer = Text(L"a text longer than any before it");
    target = longer;
    EXPECT_STREQ(L"a text longer than any before it", target.pszValeur);
    EXPECT_EQ(+longer.nTaille, +target.nTaille);

    // Copies are deep and self-assignment is harmless.
    CParam copy(longer);
    EXPECT_NE(+longer.pszValeur, +copy.pszValeur);
    CParam& alias = copy;
    copy = alias;
    EXPECT_STREQ(L"a text longer than any before it", copy.pszValeur);
}

TEST(ParamAssignment, EachTypeClearsTheSlotsItDoesNotUse) {
    CParam date = Value(SQL_C_TIMESTAMP, 0, 18);
    date.dateValeur = KvnTimestamp{2006, 3, 7, 14, 5, 9, 12};
    CParam target = Long(42);
    target = date;
    EXPECT_EQ(0, +target.valNum.llVal);
    EXPECT_EQ(7, +target.dateValeur.day);
    EXPECT_EQ(12u, +target.dateValeur.fraction);

    target = Text(L"abc", SQL_C_CHAR);
    EXPECT_EQ(0, +target.dateValeur.year);
    EXPECT_EQ(0, +target.valNum.llVal);
    EXPECT_STREQ(L"abc", target.pszValeur);

    // A number keeps the text buffer that is already there.
    wchar_t* buffer = target.pszValeur;
    target = Long(-5);
    EXPECT_EQ(-5, +target.valNum.lVal);
    EXPECT_EQ(buffer, +target.pszValeur);

    // A NULL releases the text but keeps the other slots.
    target = Text(L"old text");
    target.valNum.llVal = 0x1122334455667788LL;
    target.dateValeur = KvnTimestamp{2006, 3, 7, 14, 5, 9, 0};
    CParam nullLong = Value(SQL_C_LONG);
    nullLong.bNull = 1;
    target = nullLong;
    EXPECT_EQ(SQL_C_LONG, +target.cType);
    EXPECT_EQ(1, +target.bNull);
    EXPECT_EQ(nullptr, +target.pszValeur);
    EXPECT_EQ(0x1122334455667788LL, +target.valNum.llVal);
    EXPECT_EQ(2006, +target.dateValeur.year);

    // The GUID is copied only from a GUID value that is not NULL.
    const GUID zero = {};
    EXPECT_TRUE(SameGuid(zero, GuidOf(target)));
    CParam guid = Value(SQL_C_GUID, 0, 16);
    SetGuid(guid, SampleGuid());
    target = guid;
    EXPECT_TRUE(SameGuid(SampleGuid(), GuidOf(target)));
    target = Long(4);  // keeps the GUID it held
    EXPECT_TRUE(SameGuid(SampleGuid(), GuidOf(target)));
    CParam nullGuid = Value(SQL_C_GUID, 0, 16);
    nullGuid.bNull = 1;
    target = nullGuid;
    EXPECT_TRUE(SameGuid(SampleGuid(), GuidOf(target)));
}

// Each owner frees its own block once; run under the address sanitizer a
// shared block would be reported as freed twice.
TEST(ParamProcAssignment, AnApplicationVariableIsSharedAnOwnedOneCopiedOrFreed) {
    CParamProc target;
    target.nSens = KVN_PARAM_OUT;
    target.pVariable = std::malloc(4);
    target.bVariableAllouee = 1;

    target = Long(9);
    EXPECT_EQ(KVN_PARAM_IN, +target.nSens);
    EXPECT_EQ(nullptr, +target.pVariable);
    EXPECT_EQ(1, +target.bVariableAllouee);
    EXPECT_EQ(9, +target.valNum.lVal);

    // An application variable is shared.
    std::int32_t variable = 5;
    CParamProc app;
    static_cast<CParam&>(app) = Long(1);
    app.nSens = KVN_PARAM_INOUT;
    app.pVariable = &variable;
    CParamProc sharing;
    sharing = app;
    EXPECT_EQ(KVN_PARAM_INOUT, +sharing.nSens);
    EXPECT_EQ(&variable, +sharing.pVariable);
    EXPECT_EQ(0, +sharing.bVariableAllouee);
    CParamProc appCopy(app);
    EXPECT_EQ(&variable, +appCopy.pVariable);
    EXPECT_EQ(0, +appCopy.bVariableAllouee);

    // An owned one is copied, and the target's own former variable freed.
    CParamProc owned;
    owned.cType = SQL_C_DOUBLE;
    owned.nTaille = 8;
    double* value = static_cast<double*>(std::malloc(sizeof(double)));
    *value = 2.5;
    owned.pVariable = value;
    owned.bVariableAllouee = 1;
    CParamProc other;
    other.pVariable = std::malloc(16);
    other.bVariableAllouee = 1;
    other = owned;
    ASSERT_NE(nullptr, +other.pVariable);
    EXPECT_NE(+owned.pVariable, +other.pVariable);
    EXPECT_EQ(1, +other.bVariableAllouee);
    EXPECT_EQ(2.5, *static_cast<double*>(+other.pVariable));
    CParamProc ownedCopy(owned);
    EXPECT_NE(+owned.pVariable, +ownedCopy.pVariable);
    EXPECT_EQ(1, +ownedCopy.bVariableAllouee);

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
    CParam date = Value(SQL_C_TIMESTAMP);
    date.dateValeur = KvnTimestamp{2006, 3, 7, 14, 5, 9, 0};
    CParam guid = Value(SQL_C_GUID);
    SetGuid(guid, SampleGuid());
    CParam nullText = Text(L"abc");
    nullText.bNull = 1;
    const struct {
        CParam value;
        int quoted;
        const wchar_t* text;
    } cases[] = {
        {Value(SQL_C_SBIGINT, INT64_MIN), 0, L"-9223372036854775808"},
        {date, 0, L"07/03/2006 14:05:09:0000"},
        {guid, 0, L"12345678-9abc-def0-a0a1-a2a3a4a5a6a7"},
        {Text(L"abc"), 1, L"\"abc\""},
        {nullText, 1, L"NULL"},
        {Value(static_cast<signed char>(SQL_C_UBIGINT), 1), 0, L""},  // not rendered
        {Value(SQL_C_CHAR), 0, L""},  // a text whose buffer could not be allocated
    };
    for (const auto& c : cases) EXPECT_EQ(c.text, Rendered(c.value, c.quoted));
}

TEST(ValueText, IntoABufferOnlyWhenItFits) {
    wchar_t buffer[32];
    int capacity = 0;
    // The buffer's text after a call with the given capacity; capacity then
    // holds what the call left there (the size needed when it did not fit).
    auto into = [&](const CParam& p, int cap, int quoted) {
        capacity = cap;
        ParamValeurToBuffer(&p, buffer, &capacity, quoted);
        return std::wstring(buffer);
    };
    CParam nullValue = Value(SQL_C_LONG);
    nullValue.bNull = 1;
    EXPECT_EQ(L"NULL", into(nullValue, 5, 0));
    EXPECT_EQ(L"", into(nullValue, 4, 0));
    std::wcscpy(buffer, L"untouched");
    EXPECT_EQ(L"untouched", into(nullValue, 0, 0));

    CParam text = Text(L"twenty characters..x");
    EXPECT_EQ(L"untouched", into(text, 19, 0));
    EXPECT_EQ(20, capacity);
    EXPECT_EQ(L"twenty characters..x", into(text, 20, 0));
    into(text, 21, 1);  // quoted: 22 characters
    EXPECT_EQ(22, capacity);
}

TEST(TypeNames, BothStylesAndBothSpellings) {
    const struct {
        int type;
        int prefixed;
        const wchar_t* name;
    } cases[] = {
        {248, 0, L"CHAR"},       {SQL_C_WCHAR, 1, L"SQL_C_CHAR"}, {1, 0, L"CHAR"},
        {4, 0, L"LONG"},         {8, 1, L"SQL_C_DOUBLE"},         {8, 0, L"DECIMAL"},
        {11, 0, L"DATE"},        {11, 1, L"SQL_C_TIMESTAMP"},     {SQL_C_SBIGINT, 0, L"BIGINT"},
        {231, 1, L"SQL_C_SBIGINT"}, {SQL_C_GUID, 0, L"UNIQUEIDENTIFIER"}, {245, 1, L"SQL_GUID"},
        {0, 0, L"INCONNU"},      {229, 1, L"INCONNU"},            {248 + 256, 1, L"INCONNU"},
    };
    for (const auto& c : cases) {
        wchar_t nom[17];
        EXPECT_STREQ(c.name, GetNomType(c.type, nom, c.prefixed)) << c.type << " " << c.prefixed;
    }
}
