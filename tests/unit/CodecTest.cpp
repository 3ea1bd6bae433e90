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
#include <sstream>
#include <string>
#include <vector>

#include <korvane/CMsgSocket.h>

#include "UnitUtil.h"

// The fields of the packed value structures are read with a unary + in the
// assertions: gtest binds references to its arguments, and a reference to a
// packed field may be misaligned, so the assertions compare copies.

namespace {

using Bytes = std::vector<BYTE>;

// Bytes from hex digits; spaces only separate the fields for the reader.
Bytes Hex(const std::string& text) {
    Bytes b;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        b.push_back(static_cast<BYTE>(std::stoi(text.substr(i++, 2), nullptr, 16)));
    }
    return b;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}

Bytes Encoded(CMsgSocket& m, int unicode = -1) {
    EXPECT_EQ(1, m.CreateMessage(unicode));
    int len = 0;
    BYTE* p = m.GetMessage(&len);
    return p ? Bytes(p, p + len) : Bytes();
}

Bytes Body(const Bytes& wire) { return Bytes(wire.begin() + 16, wire.end()); }

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

// The parameters as "type:size:value" joined by " | "; the value is the text,
// the number (lVal for LONG, dVal for DOUBLE, llVal for the 64-bit types), the
// timestamp's fields or NULL.
std::wstring Dump(CMsgSocket& m) {
    std::wostringstream s;
    for (int i = 0; i < m.GetNbParametre(); ++i) {
        const CParam& p = *Param(m, i);
        const int type = m.GetTypeParametre(i);
        s << (i ? L" | " : L"") << type << L":" << +p.nTaille << L":";
        const KvnTimestamp t = p.dateValeur;
        if (p.bNull) {
            s << L"NULL";
        } else if (type == SQL_C_CHAR || type == 248) {
            s << (p.pszValeur ? p.pszValeur : L"(none)");
        } else if (type == SQL_C_LONG) {
            s << +p.valNum.lVal;
        } else if (type == SQL_C_DOUBLE) {
            s << +p.valNum.dVal;
        } else if (type == SQL_C_TIMESTAMP) {
            s << t.year << L"-" << t.month << L"-" << t.day << L" " << t.hour << L":" << t.minute
              << L":" << t.second << L"." << t.fraction;
        } else {
            s << +p.valNum.llVal;
        }
    }
    return s.str();
}

// Decodes a whole message and dumps its parameters.
std::wstring Decoded(const Bytes& wire) {
    CMsgSocket back;
    EXPECT_EQ(1, DecodeWhole(back, wire));
    return Dump(back);
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

TEST(WorkedExample, RequestAcceptanceAndAnswerAreByteExactAndComeBack) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    ASSERT_EQ(1, AddText(m, SQL_C_WCHAR, L"SELECT 1"));
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex("07000000 0300 65 01000000 13000000 01  "
                  "F8 0800 5300 4500 4C00 4500 4300 5400 2000 3100"),
              wire);
    CMsgSocket back;
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(7, back.GetIdApplication());
    EXPECT_EQ(3, back.GetIdConnexion());
    EXPECT_EQ(KVN_EXECUTE, back.GetFonction());
    EXPECT_EQ(1, back.GetMsgUnicode());
    EXPECT_EQ(L"248:8:SELECT 1", Dump(back));

    // The acceptance is a bare header.
    CMsgSocket ack;
    ack.SetEntete(7, KVN_ACK, 3);
    wire = Encoded(ack);
    ASSERT_EQ(16u, wire.size());
    EXPECT_EQ(Hex("07000000 0300 01 00000000 00000000"), Bytes(wire.begin(), wire.begin() + 15));
    ASSERT_EQ(1, DecodeWhole(back, wire));
    EXPECT_EQ(KVN_ACK, back.GetFonction());
    EXPECT_EQ(0, back.GetNbParametre());

    // The answer: a status and a long.
    CMsgSocket answer;
    answer.SetEntete(7, KVN_EXECUTE, 3);
    std::int32_t status = 0, value = 12;
    answer.AddParametre(SQL_C_LONG, 0, &status);
    answer.AddParametre(SQL_C_LONG, 0, &value);
    wire = Encoded(answer);
    EXPECT_EQ(Hex("07000000 0300 65 02000000 0E000000 01  04 0400 00000000  04 0400 0C000000"), wire);
    EXPECT_EQ(L"4:4:0 | 4:4:12", Decoded(wire));
}

// ---- Values of each type, both ways ----------------------------------------------------

TEST(ValueEncoding, TimestampTravelsAsEighteenDigitsWithoutItsFraction) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEBIND, 2);
    KvnTimestamp t{2006, 3, 7, 14, 5, 9, 1234};
    m.AddParametre(SQL_C_TIMESTAMP, 0, &t);
    const char sent[] = "070320061405090000", received[] = "070320061405091234";
    EXPECT_EQ(Concat({{0x0B, 18, 0}, Bytes(sent, sent + 18)}), Body(Encoded(m)));
    CMsgSocket back;
    ASSERT_EQ(1, DecodeBody(back, 1, Concat({{0x0B, 18, 0}, Bytes(received, received + 18)})));
    EXPECT_EQ(L"11:18:2006-3-7 14:5:9.1234", Dump(back));
}

TEST(ValueEncoding, GuidGoesOutInMemoryOrderButIsNotReadBack) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTEBIND, 2);
    GUID g = kvnunit::SampleGuid();
    m.AddParametre(SQL_C_GUID, 0, &g);
    std::int32_t after = 5;
    m.AddParametre(SQL_C_LONG, 0, &after);
    Bytes wire = Encoded(m);
    EXPECT_EQ(Hex("F5 1000 78563412 BC9A F0DE A0A1A2A3A4A5A6A7"),
              Bytes(wire.begin() + 16, wire.begin() + 35));
    // The decoder drops it and moves past its head only, so the GUID's own
    // bytes are then taken for the next record (type 0x78, dropped as well).
    // The service never sends a GUID.
    EXPECT_EQ(L"", Decoded(wire));
}

TEST(ValueEncoding, NullOfEveryTypeIsTheTypeThenFFFF) {
    const int types[] = {SQL_C_CHAR, SQL_C_WCHAR, SQL_C_LONG, SQL_C_DOUBLE, SQL_C_TIMESTAMP,
                         SQL_C_SBIGINT, SQL_C_GUID};
    for (int unicode : {1, 0}) {
        SCOPED_TRACE(unicode);
        CMsgSocket m;
        m.SetEntete(1, KVN_EXECUTEPROC, 2);
        Bytes expected;
        for (int type : types) {
            m.AddParametre(type, 0, nullptr);
            // 0xF8 stays 0xF8 for a NULL, even in a one-byte message.
            expected.insert(expected.end(), {static_cast<BYTE>(type), 0xFF, 0xFF});
        }
        Bytes wire = Encoded(m, unicode);
        EXPECT_EQ(expected, Body(wire));
        for (int i = 0; i < m.GetNbParametre(); ++i) EXPECT_EQ(-1, +Param(m, i)->nTaille);
        // All but the GUID come back, with a size of 0 and an empty date.
        CMsgSocket back;
        ASSERT_EQ(1, DecodeWhole(back, wire));
        EXPECT_EQ(L"1:0:NULL | 248:0:NULL | 4:0:NULL | 8:0:NULL | 11:0:NULL | 231:0:NULL",
                  Dump(back));
        EXPECT_EQ(0, +Param(back, 4)->dateValeur.year);
    }
}

TEST(TextEncoding, EmptyTextsAndOneByteMessages) {
    // An empty text is kept as CHAR and dropped as WCHAR.
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    m.AddParametre(SQL_C_CHAR, 0, L"");
    m.AddParametre(SQL_C_WCHAR, 0, L"");
    Bytes wire = Encoded(m);
    EXPECT_EQ((Bytes{0x01, 0x00, 0x00, 0xF8, 0x00, 0x00}), Body(wire));
    EXPECT_EQ(L"1:0:", Decoded(wire));

    // A one-byte message keeps the low byte of each character.
    CMsgSocket narrow;
    narrow.SetEntete(1, KVN_EXECUTE, 2);
    AddText(narrow, SQL_C_WCHAR, L"\u00e9\u20ac");
    AddText(narrow, SQL_C_CHAR, L"a\u0100b");  // U+0100 narrows to a zero byte: the text ends there
    wire = Encoded(narrow, 0);
    EXPECT_EQ(0, wire[15]);
    EXPECT_EQ((Bytes{0x01, 0x02, 0x00, 0xE9, 0xAC, 0x01, 0x03, 0x00, 0x61, 0x00, 0x00}), Body(wire));
    EXPECT_EQ(L"1:2:\u00e9\u00ac | 1:3:a", Decoded(wire));
}

TEST(TextEncoding, CharactersBeyondTheBasicPlaneAreSurrogatePairsAndLoneOnesAreKept) {
    const wchar_t lone[] = {L'x', static_cast<wchar_t>(0xD800), L'y', 0};
    const struct {
        const wchar_t* text;
        int units;  // UTF-16 code units, whatever the width of wchar_t
        Bytes body;
    } cases[] = {
        {L"a\U0001F600b", 4, {0xF8, 0x04, 0x00, 0x61, 0x00, 0x3D, 0xD8, 0x00, 0xDE, 0x62, 0x00}},
        {lone, 3, {0xF8, 0x03, 0x00, 0x78, 0x00, 0x00, 0xD8, 0x79, 0x00}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.units);
        CMsgSocket m;
        m.SetEntete(1, KVN_EXECUTE, 2);
        AddText(m, SQL_C_WCHAR, c.text);
        EXPECT_EQ(c.units, +Param(m, 0)->nTaille);
        Bytes wire = Encoded(m);
        EXPECT_EQ(c.body, Body(wire));
        EXPECT_EQ(L"248:" + std::to_wstring(c.units) + L":" + c.text, Decoded(wire));
    }
}

TEST(TextEncoding, SizeIsTakenFromTheTextAndCutAt32767Units) {
    CMsgSocket m;
    m.SetEntete(1, KVN_EXECUTE, 2);
    m.AddParametre(SQL_C_CHAR, 3, L"abcdef");  // a shorter size takes the start
    m.AddParametre(SQL_C_CHAR, 10, L"ab");     // a longer one stops at the terminator
    AddText(m, SQL_C_WCHAR, std::wstring(40000, L'x').c_str());
    // A pair that would straddle the limit is left out whole.
    AddText(m, SQL_C_WCHAR, (std::wstring(32766, L'x') + L"\U0001F600").c_str());
    const std::wstring expected = L"1:3:abc | 1:2:ab | 248:32767:" + std::wstring(32767, L'x') +
                                  L" | 248:32766:" + std::wstring(32766, L'x');
    EXPECT_EQ(expected, Dump(m));
    EXPECT_EQ(expected, Decoded(Encoded(m)));
}

// ---- The header check -------------------------------------------------------------------

TEST(HeaderCheck, LimitsOfEachField) {
    TestMsg m;
    CEnteteMsgSocket e;
    e.nIdApplication = 7;
    e.nFonction = KVN_EXECUTE;
    EXPECT_EQ(1, m.m_IsEnteteMessageOk(&e));
    EXPECT_EQ(0, m.m_IsEnteteMessageOk(nullptr));

    // A negative count passes, and means no record.
    const struct {
        int nbParam;
        std::uint32_t taille;
        int idApplication;
        int ok;
    } cases[] = {{50000, 0, 7, 1}, {50001, 0, 7, 0},   {-1, 0, 7, 1},  {0, 256000, 7, 1},
                 {0, 256001, 7, 0}, {0, 0, 0, 1},       {0, 0, -1, 0},  {0, 0, 128000, 1},
                 {0, 0, 128001, 0}};
    for (const auto& c : cases) {
        CEnteteMsgSocket t = e;
        t.nNbParam = c.nbParam;
        t.nTailleData = c.taille;
        t.nIdApplication = c.idApplication;
        EXPECT_EQ(c.ok, m.m_IsEnteteMessageOk(&t))
            << c.nbParam << " " << c.taille << " " << c.idApplication;
    }

    // Exactly 33 function codes pass.
    CEnteteMsgSocket t = e;
    int accepted = 0;
    for (int f = -128; f < 128; ++f) {
        t.nFonction = static_cast<signed char>(f);
        accepted += m.m_IsEnteteMessageOk(&t);
    }
    EXPECT_EQ(33, accepted);
    for (int f : {0, 1, 120, 2, 100, 121, -1}) {
        t.nFonction = static_cast<signed char>(f);
        EXPECT_EQ(f == 0 || f == 1 || f == 120 ? 1 : 0, m.m_IsEnteteMessageOk(&t)) << f;
    }
}

// ---- Hostile bodies -------------------------------------------------------------------------

TEST(HostileBody, TruncatedRecordsEndTheDecodingAndKeepWhatCameBefore) {
    const Bytes good = {0x04, 0x04, 0x00, 0x0C, 0x00, 0x00, 0x00};
    const struct {
        const char* what;
        Bytes tail;
        int unicode;
    } cases[] = {
        {"head cut", {0x01, 0x05}, 1},
        {"one-byte text beyond the body", {0x01, 0x05, 0x00, 'a', 'b'}, 0},
        {"UTF-16 text beyond the body", {0xF8, 0x03, 0x00, 'a', 0, 'b', 0}, 1},
        {"odd byte of UTF-16", {0xF8, 0x01, 0x00, 'a'}, 1},
        {"long beyond the body", {0x04, 0x04, 0x00, 0x01, 0x02}, 1},
        {"huge text size", {0x01, 0xFE, 0xFF, 'a'}, 1},
        {"timestamp beyond the body", {0x0B, 18, 0x00, '0', '1'}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CMsgSocket m;
        ASSERT_EQ(1, DecodeBody(m, 3, Concat({good, c.tail}), c.unicode));
        EXPECT_EQ(L"4:4:12", Dump(m));
        int len = 0;
        EXPECT_NE(nullptr, m.GetMessage(&len)) << "the message is ready";
    }
}

TEST(HostileBody, OversizedAndUnknownRecordsAreSkippedAndTheNextOneRead) {
    const Bytes next = {0x04, 0x04, 0x00, 0x07, 0x00, 0x00, 0x00};
    auto record = [](BYTE type, int size, BYTE fill) {
        Bytes r = {type, static_cast<BYTE>(size & 0xFF), static_cast<BYTE>(size >> 8)};
        r.resize(3 + size, fill);
        return r;
    };
    // A LONG of 9 bytes and a DOUBLE of 255 keep their first 8; timestamps of
    // 17 and 19 digits and 40000 one-byte characters (more than 32767) are skipped.
    CMsgSocket m;
    const Bytes body = Concat({Hex("04 0900 0C000000 1122334455"), next, record(0x08, 255, 0x01),
                               next, record(0x0B, 17, '1'), next, record(0x0B, 19, '1'), next,
                               record(0x01, 40000, 'x'), next});
    ASSERT_EQ(1, DecodeBody(m, 10, body, 0));
    EXPECT_EQ(L"4:8:12 | 4:4:7 | 8:8:7.7486e-304 | 4:4:7 | 4:4:7 | 4:4:7 | 4:4:7", Dump(m));
    EXPECT_EQ(0x443322110000000CLL, +Param(m, 0)->valNum.llVal);
    EXPECT_EQ(0x0101010101010101LL, +Param(m, 2)->valNum.llVal);

    // An unknown type is passed by its head only.
    CMsgSocket u;
    ASSERT_EQ(1, DecodeBody(u, 2, Concat({{0x07, 0x04, 0x00}, next})));
    EXPECT_EQ(L"4:4:7", Dump(u));
}

TEST(HostileBody, CountsThatDisagreeWithTheBody) {
    const Bytes two = {0x04, 0x04, 0x00, 0x01, 0, 0, 0, 0x04, 0x04, 0x00, 0x02, 0, 0, 0};
    const struct {
        int announced;
        Bytes body;
        const wchar_t* kept;
    } cases[] = {{-5, two, L""}, {1000, two, L"4:4:1 | 4:4:2"}, {1, two, L"4:4:1"}, {5, {}, L""}};
    CMsgSocket m;
    for (const auto& c : cases) {
        ASSERT_EQ(1, DecodeBody(m, c.announced, c.body)) << c.announced;
        EXPECT_EQ(c.kept, Dump(m)) << c.announced;
    }
}

TEST(HostileBody, EmptyValuesNullsAndTextsWithoutTerminator) {
    // Empty values are kept only for CHAR; NULLs are kept.
    CMsgSocket m;
    ASSERT_EQ(1, DecodeBody(m, 7, Hex("04 0000  0B 0000  E7 0000  F8 0000  01 0000  0B FFFF  01FFFF")));
    EXPECT_EQ(L"1:0: | 11:0:NULL | 1:0:NULL", Dump(m));
    // Embedded zeros end a text, and the last one needs no terminator.
    ASSERT_EQ(1, DecodeBody(m, 2, Hex("01 0300 610062  F8 0200 6300 0000"), 0));
    EXPECT_EQ(L"1:3:a | 248:2:c", Dump(m));
}

// ---- Decoding and the message object ----------------------------------------------------------

TEST(Decoding, NullDataIsRefusedAndADecodedMessageHoldsTheWholeMessage) {
    CMsgSocket m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    AddText(m, SQL_C_WCHAR, L"SELECT 1");
    CEnteteMsgSocket e;
    e.nFonction = KVN_FETCH;
    EXPECT_EQ(0, m.AnalyseMessage(e, nullptr));
    EXPECT_EQ(0, m.AnalyseMessageComplet(nullptr));
    EXPECT_EQ(KVN_EXECUTE, m.GetFonction());
    EXPECT_EQ(1, m.GetNbParametre());

    std::int32_t v = 4;
    m.AddParametre(SQL_C_LONG, 0, &v);
    Bytes wire = Encoded(m);
    // Decoding the message's own buffer into itself.
    ASSERT_EQ(1, m.AnalyseMessageComplet(m.GetMessage(nullptr)));
    EXPECT_EQ(L"248:8:SELECT 1 | 4:4:4", Dump(m));
    int len = 0;
    BYTE* p = m.GetMessage(&len);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(wire, Bytes(p, p + len));

    // The decoded parameters share a block with the received copy; encoding
    // the message anew, with one parameter more, keeps them.
    m.AddParametre(SQL_C_LONG, 0, &v);
    EXPECT_EQ(L"248:8:SELECT 1 | 4:4:4 | 4:4:4", Decoded(Encoded(m)));
}

TEST(MessageObject, NothingIsEncodedWithoutHeaderAndClearingKeepsConnectionAndWidth) {
    CMsgSocket m;
    EXPECT_EQ(-1, m.GetFonction());
    EXPECT_EQ(0, m.CreateMessage(-1));
    int len = 5;
    EXPECT_EQ(nullptr, m.GetMessage(&len));
    EXPECT_EQ(0, len);
    m.SetEntete(0, KVN_INIT_APPLICATION, 0);
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0, 1}), Encoded(m));

    m.SetEntete(7, KVN_EXECUTE, 3);
    AddText(m, SQL_C_WCHAR, L"gone");
    Encoded(m, 0);
    m.ClearMessage();
    EXPECT_EQ(-1, m.GetFonction());
    EXPECT_EQ(-1, m.GetIdApplication());
    EXPECT_EQ(3, m.GetIdConnexion());
    EXPECT_EQ(0, m.GetMsgUnicode());
    EXPECT_EQ(0, m.GetNbParametre());
    EXPECT_EQ(nullptr, m.GetMessage(&len));
}

TEST(MessageObject, BuildingOrderAndBounds) {
    TestMsg m;
    m.SetEntete(0x12345, 0x165, 0x10003);  // the function and connection keep their low bits
    EXPECT_EQ(0x12345, m.GetIdApplication());
    EXPECT_EQ(0x65, m.GetFonction());
    EXPECT_EQ(3, m.GetIdConnexion());

    std::int32_t one = 1, two = 2;
    m.AddParametre(SQL_C_LONG, 0, &two);
    m.AddFirstParametre(SQL_C_LONG, 0, &one);
    AddText(m, SQL_C_WCHAR, L"last");
    CParam* first = new CParam;
    first->cType = SQL_C_DOUBLE;
    first->nTaille = 8;
    m.AddFirstParametre(first);
    m.AddParametre(0x33, 0, &one);  // unknown type: a NULL text stands in
    // The GUID and the unsigned 64-bit integer are known by their signed
    // codes only; their bytes are unknown types like any other.
    std::int64_t big = 5;
    m.AddParametre(0xF5, 0, &big);
    m.AddParametre(0xE5, 0, &big);
    EXPECT_EQ(L"8:8:0 | 4:4:1 | 4:4:2 | 248:4:last | 1:0:NULL | 1:0:NULL | 1:0:NULL", Dump(m));

    CParam* p = nullptr;
    EXPECT_EQ(0, m.GetParametre(7, &p));
    EXPECT_EQ(0, m.GetParametre(-1, &p));
    EXPECT_EQ(0, m.m_GetParam(7, &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(0, m.GetTypeParametre(7));
    EXPECT_EQ(0, m.GetTypeParametre(-1));
    EXPECT_EQ(0, m.AddParametre(static_cast<CParam*>(nullptr)));
}
