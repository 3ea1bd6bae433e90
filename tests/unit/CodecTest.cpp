// The message codec: the exact bytes the encoder writes, what the decoders
// make of them and of hostile bodies, the header check and the bookkeeping of
// a message object. Run under the address sanitizer, every decoded body sits
// in a heap block of exactly its size, so a read past it is reported.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <korvane/CMsgSocket.h>

// The fields of the packed value structures are read with a unary + in the
// assertions: gtest binds references to its arguments, and a reference to a
// packed field may be misaligned, so the assertions compare copies.

namespace {

using Bytes = std::vector<BYTE>;

Bytes Hex(std::initializer_list<int> values) {
    Bytes b;
    for (int v : values) b.push_back(static_cast<BYTE>(v));
    return b;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}

// The message's encoded bytes.
Bytes Encoded(CMsgSocket& m, int unicode = -1) {
    EXPECT_EQ(1, m.CreateMessage(unicode));
    int len = 0;
    BYTE* p = m.GetMessage(&len);
    if (!p) return Bytes();
    return Bytes(p, p + len);
}

// Decodes a whole message from a heap block of exactly its size.
int DecodeWhole(CMsgSocket& m, const Bytes& wire) {
    std::unique_ptr<BYTE[]> block(new BYTE[wire.size()]);
    std::memcpy(block.get(), wire.data(), wire.size());
    return m.AnalyseMessageComplet(block.get());
}

// Decodes `body` under a header that announces nbParam records.
int DecodeBody(CMsgSocket& m, int nbParam, const Bytes& body, int unicode = 1) {
    CEnteteMsgSocket e;
    e.nIdApplication = 7;
    e.nIdConnexion = 3;
    e.nFonction = KVN_EXECUTE;
    e.nNbParam = nbParam;
    e.nTailleData = static_cast<std::uint32_t>(body.size());
    e.bUnicode = static_cast<signed char>(unicode);
    std::unique_ptr<BYTE[]> block(new BYTE[body.empty() ? 1 : body.size()]);
    if (!body.empty()) std::memcpy(block.get(), body.data(), body.size());
    return m.AnalyseMessage(e, block.get());
}

CParam* Param(CMsgSocket& m, int i) {
    CParam* p = nullptr;
    EXPECT_EQ(1, m.GetParametre(i, &p)) << "no parameter " << i;
    return p;
}

// Encodes m and decodes the bytes into back.
void RoundTrip(CMsgSocket& m, CMsgSocket& back, int unicode = -1) {
    Bytes wire = Encoded(m, unicode);
    ASSERT_EQ(1, DecodeWhole(back, wire));
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

int AddText(CMsgSocket& m, int type, const wchar_t* text) {
    return m.AddParametre(type, static_cast<unsigned>(std::wcslen(text)), text);
}

class TestMsg : public CMsgSocket {
public:
    using CMsgSocket::m_GetParam;
    using CMsgSocket::m_IsEnteteMessageOk;
};

}  // namespace

// ---- The worked example: request, acceptance and answer ------------------------------

TEST(WorkedExample, ExecuteRequestGoesOutAsThirtyFiveBytesAndComesBack) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    ASSERT_EQ(1, AddText(m, SQL_C_WCHAR, L"SELECT 1"));
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x65, 0x01, 0x00, 0x00, 0x00, 0x13, 0x00,
                   0x00, 0x00, 0x01, 0xF8, 0x08, 0x00, 0x53, 0x00, 0x45, 0x00, 0x4C, 0x00, 0x45,
                   0x00, 0x43, 0x00, 0x54, 0x00, 0x20, 0x00, 0x31, 0x00}),
              wire);

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(7, back.GetIdApplication());
    EXPECT_EQ(3, back.GetIdConnexion());
    EXPECT_EQ(KVN_EXECUTE, back.GetFonction());
    EXPECT_EQ(1, back.GetMsgUnicode());
    ASSERT_EQ(1, back.GetNbParametre());
    EXPECT_EQ(248, back.GetTypeParametre(0));
    EXPECT_EQ(8, +Param(back, 0)->nTaille);
    EXPECT_STREQ(L"SELECT 1", Param(back, 0)->pszValeur);
}

TEST(WorkedExample, AcceptanceIsABareHeader) {
    TestMsg ack;
    ack.SetEntete(7, KVN_ACK, 3);
    Bytes wire = Encoded(ack);
    ASSERT_EQ(16u, wire.size());
    EXPECT_EQ(Hex({0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                   0x00, 0x00}),
              Bytes(wire.begin(), wire.begin() + 15));

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(KVN_ACK, back.GetFonction());
    EXPECT_EQ(0, back.GetNbParametre());
}

TEST(WorkedExample, AnswerWithStatusAndLong) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    std::int32_t status = 0, value = 12;
    m.AddParametre(SQL_C_LONG, 0, &status);
    m.AddParametre(SQL_C_LONG, 0, &value);
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x65, 0x02, 0x00, 0x00, 0x00, 0x0E, 0x00,
                   0x00, 0x00, 0x01, 0x04, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x04, 0x00,
                   0x0C, 0x00, 0x00, 0x00}),
              wire);

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    ASSERT_EQ(2, back.GetNbParametre());
    EXPECT_EQ(0, +Param(back, 0)->valNum.lVal);
    EXPECT_EQ(12, +Param(back, 1)->valNum.lVal);
    EXPECT_EQ(4, +Param(back, 1)->nTaille);
}

// ---- Values of each type, both ways ----------------------------------------------------

TEST(ValueEncoding, NumbersAreLittleEndianAndComeBackUnchanged) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEPROC, 2);
    std::int32_t l = INT32_MIN;
    double d = 2.5;
    std::int64_t ll = -2;
    std::uint64_t ull = 0x0102030405060708ULL;
    m.AddParametre(SQL_C_LONG, 0, &l);
    m.AddParametre(SQL_C_DOUBLE, 0, &d);
    m.AddParametre(SQL_C_SBIGINT, 0, &ll);
    m.AddParametre(SQL_C_UBIGINT, 0, &ull);
    Bytes wire = Encoded(m);
    Bytes body(wire.begin() + 16, wire.end());
    EXPECT_EQ(Concat({Hex({0x04, 0x04, 0x00, 0x00, 0x00, 0x00, 0x80}),
                      Hex({0x08, 0x08, 0x00, 0, 0, 0, 0, 0, 0, 0x04, 0x40}),
                      Hex({0xE7, 0x08, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
                      // An unsigned 64-bit value travels as its 8 bytes.
                      Hex({0xE5, 0x08, 0x00, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01})}),
              body);
    EXPECT_EQ(Hex({static_cast<int>(body.size()), 0, 0, 0}),
              Bytes(wire.begin() + 11, wire.begin() + 15));

    CMsgSocket back;
    RoundTrip(m, back);
    ASSERT_EQ(4, back.GetNbParametre());
    EXPECT_EQ(INT32_MIN, +Param(back, 0)->valNum.lVal);
    EXPECT_EQ(2.5, +Param(back, 1)->valNum.dVal);
    EXPECT_EQ(-2, +Param(back, 2)->valNum.llVal);
    EXPECT_EQ(static_cast<std::int64_t>(ull), +Param(back, 3)->valNum.llVal);
    EXPECT_EQ(229, back.GetTypeParametre(3));
}

TEST(ValueEncoding, AnEightByteLongFieldCarriesTheValueThenZeros) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEBIND, 2);
    CParam* p = new CParam;
    p->cType = SQL_C_LONG;
    p->nTaille = 8;
    p->valNum.llVal = 0x777777770000000CLL;  // the upper half must not reach the wire
    m.AddParametre(p);
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0x04, 0x08, 0x00, 0x0C, 0, 0, 0, 0, 0, 0, 0}),
              Bytes(wire.begin() + 16, wire.end()));

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(12, +Param(back, 0)->valNum.lVal);
    EXPECT_EQ(8, +Param(back, 0)->nTaille);
}

TEST(ValueEncoding, TimestampTravelsAsEighteenDigitsWithoutItsFraction) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEBIND, 2);
    KvnTimestamp t = Moment(2006, 3, 7, 14, 5, 9, 1234);
    m.AddParametre(SQL_C_TIMESTAMP, 0, &t);
    Bytes wire = Encoded(m);
    std::string digits(wire.begin() + 19, wire.end());
    EXPECT_EQ(Hex({0x0B, 18, 0}), Bytes(wire.begin() + 16, wire.begin() + 19));
    EXPECT_EQ("070320061405090000", digits);

    Bytes answer = Concat({Hex({0x0B, 18, 0}), Bytes{'0', '7', '0', '3', '2', '0', '0', '6', '1',
                                                     '4', '0', '5', '0', '9', '1', '2', '3', '4'}});
    CMsgSocket back;
    ASSERT_EQ(1, DecodeBody(back, 1, answer));
    ASSERT_EQ(1, back.GetNbParametre());
    const KvnTimestamp d = Param(back, 0)->dateValeur;
    EXPECT_EQ(2006, d.year);
    EXPECT_EQ(3, d.month);
    EXPECT_EQ(7, d.day);
    EXPECT_EQ(14, d.hour);
    EXPECT_EQ(5, d.minute);
    EXPECT_EQ(9, d.second);
    EXPECT_EQ(1234u, d.fraction);
}

TEST(ValueEncoding, GuidGoesOutInMemoryOrderButIsNotReadBack) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEBIND, 2);
    GUID g;
    g.Data1 = 0x12345678;
    g.Data2 = 0x9ABC;
    g.Data3 = 0xDEF0;
    for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<unsigned char>(0xA0 + i);
    m.AddParametre(SQL_C_GUID, 0, &g);
    std::int32_t after = 5;
    m.AddParametre(SQL_C_LONG, 0, &after);
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0xF5, 0x10, 0x00, 0x78, 0x56, 0x34, 0x12, 0xBC, 0x9A, 0xF0, 0xDE, 0xA0, 0xA1,
                   0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7}),
              Bytes(wire.begin() + 16, wire.begin() + 35));

    // The decoder drops it and moves past its head only, so the GUID's own
    // bytes are then taken for the next record (type 0x78, dropped as well).
    // The service never sends a GUID.
    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(0, back.GetNbParametre());
}

TEST(ValueEncoding, NullOfEveryTypeIsTheTypeThenFFFF) {
    const int types[] = {SQL_C_CHAR, SQL_C_WCHAR, SQL_C_LONG, SQL_C_DOUBLE, SQL_C_TIMESTAMP,
                         SQL_C_SBIGINT, SQL_C_GUID};
    for (int unicode : {1, 0}) {
        CMsgSocket m;
        m.SetEntete(1, KVN_EXECUTEPROC, 2);
        for (int type : types) m.AddParametre(type, 0, nullptr);
        Bytes wire = Encoded(m, unicode);
        Bytes body(wire.begin() + 16, wire.end());
        Bytes expected;
        for (int type : types) {
            // 0xF8 stays 0xF8 for a NULL, even in a one-byte message.
            Bytes record = Hex({type & 0xFF, 0xFF, 0xFF});
            expected.insert(expected.end(), record.begin(), record.end());
        }
        EXPECT_EQ(expected, body) << "unicode " << unicode;
        for (int i = 0; i < m.GetNbParametre(); ++i) EXPECT_EQ(-1, +Param(m, i)->nTaille);

        CMsgSocket back;
        ASSERT_EQ(1, DecodeWhole(back, wire));
        ASSERT_EQ(6, back.GetNbParametre());  // all but the GUID
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(types[i] & 0xFF, back.GetTypeParametre(i));
            EXPECT_EQ(1, +Param(back, i)->bNull);
            EXPECT_EQ(0, +Param(back, i)->nTaille);
        }
        EXPECT_EQ(0, +Param(back, 4)->dateValeur.year);
    }
}

TEST(TextEncoding, AnEmptyTextIsKeptAsCharAndDroppedAsWchar) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    m.AddParametre(SQL_C_CHAR, 0, L"");
    m.AddParametre(SQL_C_WCHAR, 0, L"");
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0x01, 0x00, 0x00, 0xF8, 0x00, 0x00}), Bytes(wire.begin() + 16, wire.end()));

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    ASSERT_EQ(1, back.GetNbParametre());
    EXPECT_EQ(1, back.GetTypeParametre(0));
    EXPECT_STREQ(L"", Param(back, 0)->pszValeur);
    EXPECT_EQ(0, +Param(back, 0)->bNull);
}

TEST(TextEncoding, OneByteMessagesKeepTheLowByteOfEachCharacter) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    AddText(m, SQL_C_WCHAR, L"\u00e9\u20ac");
    AddText(m, SQL_C_CHAR, L"a\u0100b");  // U+0100 narrows to a zero byte: the text ends there
    Bytes wire = Encoded(m, 0);
    EXPECT_EQ(0, wire[15]);
    EXPECT_EQ(Hex({0x01, 0x02, 0x00, 0xE9, 0xAC, 0x01, 0x03, 0x00, 0x61, 0x00, 0x00}),
              Bytes(wire.begin() + 16, wire.end()));

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    ASSERT_EQ(2, back.GetNbParametre());
    EXPECT_STREQ(L"\u00e9\u00ac", Param(back, 0)->pszValeur);
    EXPECT_STREQ(L"a", Param(back, 1)->pszValeur);
}

TEST(TextEncoding, CharactersBeyondTheBasicPlaneAreSurrogatePairs) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    const wchar_t* text = L"a\U0001F600b";
    AddText(m, SQL_C_WCHAR, text);
    EXPECT_EQ(4, +Param(m, 0)->nTaille);  // UTF-16 code units, whatever the width of wchar_t
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0xF8, 0x04, 0x00, 0x61, 0x00, 0x3D, 0xD8, 0x00, 0xDE, 0x62, 0x00}),
              Bytes(wire.begin() + 16, wire.end()));

    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_STREQ(text, Param(back, 0)->pszValeur);
    EXPECT_EQ(4, +Param(back, 0)->nTaille);

    // A lone surrogate is kept as its code unit, both ways.
    const wchar_t lone[] = {L'x', static_cast<wchar_t>(0xD800), L'y', 0};
    CMsgSocket m2;
    m2.SetEntete(1, KVN_EXECUTE, 2);
    AddText(m2, SQL_C_WCHAR, lone);
    Bytes wire2 = Encoded(m2);
    EXPECT_EQ(Hex({0xF8, 0x03, 0x00, 0x78, 0x00, 0x00, 0xD8, 0x79, 0x00}),
              Bytes(wire2.begin() + 16, wire2.end()));
    CMsgSocket back2;
    ASSERT_EQ(1, DecodeWhole(back2, wire2));
    EXPECT_STREQ(lone, Param(back2, 0)->pszValeur);
}

TEST(TextEncoding, SizeIsTakenFromTheTextAndCutAt32767Units) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    m.AddParametre(SQL_C_CHAR, 3, L"abcdef");  // a shorter size takes the start
    m.AddParametre(SQL_C_CHAR, 10, L"ab");     // a longer one stops at the terminator
    EXPECT_STREQ(L"abc", Param(m, 0)->pszValeur);
    EXPECT_EQ(3, +Param(m, 0)->nTaille);
    EXPECT_STREQ(L"ab", Param(m, 1)->pszValeur);
    EXPECT_EQ(2, +Param(m, 1)->nTaille);

    std::wstring huge(40000, L'x');
    AddText(m, SQL_C_WCHAR, huge.c_str());
    EXPECT_EQ(32767, +Param(m, 2)->nTaille);
    EXPECT_EQ(32767u, std::wcslen(+Param(m, 2)->pszValeur));

    // A pair that would straddle the limit is left out whole.
    std::wstring edge = std::wstring(32766, L'x') + L"\U0001F600";
    AddText(m, SQL_C_WCHAR, edge.c_str());
    EXPECT_EQ(32766, +Param(m, 3)->nTaille);
    EXPECT_EQ(std::wstring(32766, L'x'), +Param(m, 3)->pszValeur);

    CMsgSocket back;
    RoundTrip(m, back);
    ASSERT_EQ(4, back.GetNbParametre());
    EXPECT_EQ(32767u, std::wcslen(+Param(back, 2)->pszValeur));
}

// ---- The header check -------------------------------------------------------------------

TEST(HeaderCheck, LimitsOfEachField) {
    TestMsg m;
    CEnteteMsgSocket e;
    e.nIdApplication = 7;
    e.nFonction = KVN_EXECUTE;
    EXPECT_EQ(1, m.m_IsEnteteMessageOk(&e));

    CEnteteMsgSocket t = e;
    t.nNbParam = 50000;
    EXPECT_EQ(1, m.m_IsEnteteMessageOk(&t));
    t.nNbParam = 50001;
    EXPECT_EQ(0, m.m_IsEnteteMessageOk(&t));
    t.nNbParam = -1;  // a negative count passes, and means no record
    EXPECT_EQ(1, m.m_IsEnteteMessageOk(&t));

    t = e;
    t.nTailleData = 256000;
    EXPECT_EQ(1, m.m_IsEnteteMessageOk(&t));
    t.nTailleData = 256001;
    EXPECT_EQ(0, m.m_IsEnteteMessageOk(&t));

    t = e;
    for (int id : {0, 128000}) {
        t.nIdApplication = id;
        EXPECT_EQ(1, m.m_IsEnteteMessageOk(&t)) << id;
    }
    for (int id : {-1, 128001}) {
        t.nIdApplication = id;
        EXPECT_EQ(0, m.m_IsEnteteMessageOk(&t)) << id;
    }

    // Exactly 33 function codes pass.
    t = e;
    int accepted = 0;
    for (int f = -128; f < 128; ++f) {
        t.nFonction = static_cast<signed char>(f);
        accepted += m.m_IsEnteteMessageOk(&t);
    }
    EXPECT_EQ(33, accepted);
    for (int f : {0, 1, 5, 9, 20, 21, 25, 26, 28, 29, 101, 120}) {
        t.nFonction = static_cast<signed char>(f);
        EXPECT_EQ(1, m.m_IsEnteteMessageOk(&t)) << f;
    }
    for (int f : {2, 4, 10, 27, 100, 121, -1}) {
        t.nFonction = static_cast<signed char>(f);
        EXPECT_EQ(0, m.m_IsEnteteMessageOk(&t)) << f;
    }
    EXPECT_EQ(0, m.m_IsEnteteMessageOk(nullptr));
}

// ---- Hostile bodies -------------------------------------------------------------------------

TEST(HostileBody, TruncatedRecordsEndTheDecodingAndKeepWhatCameBefore) {
    Bytes good = Hex({0x04, 0x04, 0x00, 0x0C, 0x00, 0x00, 0x00});
    struct Case {
        const char* what;
        Bytes tail;
        int unicode;
    } cases[] = {
        {"head cut", Hex({0x01, 0x05}), 1},
        {"one-byte text beyond the body", Hex({0x01, 0x05, 0x00, 'a', 'b'}), 0},
        {"UTF-16 text beyond the body", Hex({0xF8, 0x03, 0x00, 'a', 0, 'b', 0}), 1},
        {"odd byte of UTF-16", Hex({0xF8, 0x01, 0x00, 'a'}), 1},
        {"long beyond the body", Hex({0x04, 0x04, 0x00, 0x01, 0x02}), 1},
        {"huge text size", Hex({0x01, 0xFE, 0xFF, 'a'}), 1},
        {"timestamp beyond the body", Hex({0x0B, 18, 0x00, '0', '1'}), 1},
    };
    for (const Case& c : cases) {
        CMsgSocket m;
        ASSERT_EQ(1, DecodeBody(m, 3, Concat({good, c.tail}), c.unicode)) << c.what;
        ASSERT_EQ(1, m.GetNbParametre()) << c.what;
        EXPECT_EQ(12, +Param(m, 0)->valNum.lVal) << c.what;
        int len = 0;
        EXPECT_NE(nullptr, m.GetMessage(&len)) << c.what << ": the message is ready";
    }
}

TEST(HostileBody, OversizedAndUnknownRecordsAreSkippedAndTheNextOneRead) {
    Bytes next = Hex({0x04, 0x04, 0x00, 0x07, 0x00, 0x00, 0x00});
    Bytes wideLong = Hex({0x04, 0x09, 0x00, 0x0C, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55});
    Bytes widerDouble = Hex({0x08, 0xFF, 0x00});
    widerDouble.resize(3 + 255, 0x01);
    Bytes shortDate = Hex({0x0B, 17, 0x00});
    shortDate.resize(3 + 17, '1');
    Bytes longDate = Hex({0x0B, 19, 0x00});
    longDate.resize(3 + 19, '1');
    Bytes hugeText = Hex({0x01, 0x40, 0x9C});  // 40000 one-byte characters: more than 32767
    hugeText.resize(3 + 40000, 'x');

    CMsgSocket m;
    ASSERT_EQ(1, DecodeBody(m, 10, Concat({wideLong, next, widerDouble, next, shortDate, next,
                                           longDate, next, hugeText, next}), 0));
    ASSERT_EQ(7, m.GetNbParametre());
    // A numeric field wider than 8 bytes keeps its first 8.
    EXPECT_EQ(4, m.GetTypeParametre(0));
    EXPECT_EQ(8, +Param(m, 0)->nTaille);
    EXPECT_EQ(0x443322110000000CLL, +Param(m, 0)->valNum.llVal);
    EXPECT_EQ(8, m.GetTypeParametre(2));
    EXPECT_EQ(0x0101010101010101LL, +Param(m, 2)->valNum.llVal);
    for (int i : {1, 3, 4, 5, 6}) EXPECT_EQ(7, +Param(m, i)->valNum.lVal) << i;

    // An unknown type is passed by its head only.
    CMsgSocket u;
    ASSERT_EQ(1, DecodeBody(u, 2, Concat({Hex({0x07, 0x04, 0x00}), next})));
    ASSERT_EQ(1, u.GetNbParametre());
    EXPECT_EQ(7, +Param(u, 0)->valNum.lVal);
}

TEST(HostileBody, CountsThatDisagreeWithTheBody) {
    Bytes two = Hex({0x04, 0x04, 0x00, 0x01, 0, 0, 0, 0x04, 0x04, 0x00, 0x02, 0, 0, 0});
    CMsgSocket m;
    ASSERT_EQ(1, DecodeBody(m, -5, two));
    EXPECT_EQ(0, m.GetNbParametre());
    ASSERT_EQ(1, DecodeBody(m, 1000, two));
    EXPECT_EQ(2, m.GetNbParametre());
    ASSERT_EQ(1, DecodeBody(m, 1, two));
    EXPECT_EQ(1, m.GetNbParametre());
    ASSERT_EQ(1, DecodeBody(m, 5, Bytes()));
    EXPECT_EQ(0, m.GetNbParametre());
}

TEST(HostileBody, EmptyValuesAreKeptOnlyForCharAndNullsAreKept) {
    Bytes body = Hex({0x04, 0x00, 0x00, 0x0B, 0x00, 0x00, 0xE7, 0x00, 0x00, 0xF8, 0x00, 0x00,
                      0x01, 0x00, 0x00, 0x0B, 0xFF, 0xFF, 0x01, 0xFF, 0xFF});
    CMsgSocket m;
    ASSERT_EQ(1, DecodeBody(m, 7, body));
    ASSERT_EQ(3, m.GetNbParametre());
    EXPECT_EQ(1, m.GetTypeParametre(0));
    EXPECT_EQ(0, +Param(m, 0)->bNull);
    EXPECT_EQ(11, m.GetTypeParametre(1));
    EXPECT_EQ(1, +Param(m, 1)->bNull);
    EXPECT_EQ(1, m.GetTypeParametre(2));
    EXPECT_EQ(1, +Param(m, 2)->bNull);
}

TEST(HostileBody, TextWithoutTerminatorOrWithEmbeddedZeros) {
    CMsgSocket m;
    Bytes body = Hex({0x01, 0x03, 0x00, 'a', 0, 'b', 0xF8, 0x02, 0x00, 'c', 0, 0, 0});
    ASSERT_EQ(1, DecodeBody(m, 2, body, 0));
    ASSERT_EQ(2, m.GetNbParametre());
    EXPECT_STREQ(L"a", Param(m, 0)->pszValeur);
    EXPECT_STREQ(L"c", Param(m, 1)->pszValeur);
}

// ---- Decoding and the message object ----------------------------------------------------------

TEST(Decoding, NullDataIsRefusedAndLeavesTheMessageAsItWas) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    AddText(m, SQL_C_WCHAR, L"kept");
    CEnteteMsgSocket e;
    e.nFonction = KVN_FETCH;
    EXPECT_EQ(0, m.AnalyseMessage(e, nullptr));
    EXPECT_EQ(0, m.AnalyseMessageComplet(nullptr));
    EXPECT_EQ(KVN_EXECUTE, m.GetFonction());
    EXPECT_EQ(1, m.GetNbParametre());
}

TEST(Decoding, ADecodedMessageHoldsTheWholeMessageItWasGiven) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    AddText(m, SQL_C_WCHAR, L"SELECT 1");
    std::int32_t v = 4;
    m.AddParametre(SQL_C_LONG, 0, &v);
    Bytes wire = Encoded(m);

    // Decoding the message's own buffer into itself.
    BYTE* own = m.GetMessage(nullptr);
    ASSERT_EQ(1, m.AnalyseMessageComplet(own));
    ASSERT_EQ(2, m.GetNbParametre());
    EXPECT_STREQ(L"SELECT 1", Param(m, 0)->pszValeur);

    int len = 0;
    BYTE* p = m.GetMessage(&len);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(wire, Bytes(p, p + len));
}

TEST(Encoding, WithoutHeaderNothingIsEncoded) {
    CMsgSocket m;
    EXPECT_EQ(-1, m.GetFonction());
    EXPECT_EQ(0, m.CreateMessage(-1));
    int len = 5;
    EXPECT_EQ(nullptr, m.GetMessage(&len));
    EXPECT_EQ(0, len);

    m.SetEntete(0, KVN_INIT_APPLICATION, 0);
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex({0, 0, 0, 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0, 1}), wire);
}

TEST(MessageObject, BuildingOrderAndBounds) {
    TestMsg m;
    m.SetEntete(0x12345, 0x165, 0x10003);  // the function and connection keep their low bits
    EXPECT_EQ(0x12345, m.GetIdApplication());
    EXPECT_EQ(0x65, m.GetFonction());
    EXPECT_EQ(3, m.GetIdConnexion());
    m.SetFonction(KVN_FETCH);
    EXPECT_EQ(KVN_FETCH, m.GetFonction());

    std::int32_t one = 1, two = 2;
    m.AddParametre(SQL_C_LONG, 0, &two);
    m.AddFirstParametre(SQL_C_LONG, 0, &one);
    AddText(m, SQL_C_WCHAR, L"last");
    CParam* first = new CParam;
    first->cType = SQL_C_DOUBLE;
    first->nTaille = 8;
    m.AddFirstParametre(first);
    m.AddParametre(0x33, 0, &one);  // unknown type: a NULL text stands in

    ASSERT_EQ(5, m.GetNbParametre());
    EXPECT_EQ(8, m.GetTypeParametre(0));
    EXPECT_EQ(1, +Param(m, 1)->valNum.lVal);
    EXPECT_EQ(2, +Param(m, 2)->valNum.lVal);
    EXPECT_EQ(248, m.GetTypeParametre(3));
    EXPECT_EQ(1, m.GetTypeParametre(4));
    EXPECT_EQ(1, +Param(m, 4)->bNull);

    CParam* p = nullptr;
    EXPECT_EQ(0, m.GetParametre(5, &p));
    EXPECT_EQ(0, m.GetParametre(-1, &p));
    EXPECT_EQ(0, m.m_GetParam(5, &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(0, m.GetTypeParametre(5));
    EXPECT_EQ(0, m.GetTypeParametre(-1));
    EXPECT_EQ(0, m.AddParametre(static_cast<CParam*>(nullptr)));
}

TEST(MessageObject, ClearingKeepsOnlyTheConnectionAndTheTextWidth) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    AddText(m, SQL_C_WCHAR, L"gone");
    Encoded(m, 0);
    m.ClearMessage();
    EXPECT_EQ(-1, m.GetFonction());
    EXPECT_EQ(-1, m.GetIdApplication());
    EXPECT_EQ(3, m.GetIdConnexion());
    EXPECT_EQ(0, m.GetMsgUnicode());
    EXPECT_EQ(0, m.GetNbParametre());
    int len = 9;
    EXPECT_EQ(nullptr, m.GetMessage(&len));
    EXPECT_EQ(0, len);
}

TEST(MessageObject, CommunicationParametersAreCopiedInAndOut) {
    CMsgSocket m;
    CParamComm in;
    in.nTimeOutConnect = 1234;
    in.nPortHB = 9000;
    std::wcscpy(in.szAdresseHB, L"239.1.2.3");
    m.SetParamComm(&in);
    CParamComm out;
    m.GetParamComm(&out);
    EXPECT_EQ(0, std::memcmp(&in, &out, sizeof(CParamComm)));
}
