// CMsgSocket: one message held in memory, its building, its encoder
// (CreateMessage), its decoders (AnalyseMessage, AnalyseMessageComplet), its
// header check and its accessors.
//
// Everything here works on memory only. Sending, receiving and the
// acknowledgements are in Exchange.cpp; the trace dump is in Trace.cpp.
//
// The wire is little-endian and packed. Every field is written and read byte
// by byte (WireHeader.h), so that the layout does not depend on how a compiler
// lays out or aligns the structures in memory.
//
// m_pMessage, when not null, always holds m_nTailleMessage bytes: the whole
// message, header and body. After CreateMessage it is the encoded message;
// after AnalyseMessage it is the received header followed by a copy of the
// received body. So GetMessage and a sender never read past it, whichever way
// the message was filled.
#include <korvane/CMsgSocket.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "protocol/ValueTypes.h"
#include "protocol/WireHeader.h"
#include "protocol/WireText.h"

namespace {

constexpr std::size_t kTailleTete = 3;        // type byte and 16-bit size of a record
constexpr std::uint16_t kTailleNull = 0xFFFF;  // size field of a NULL value
constexpr std::size_t kTailleDate = 18;        // DDMMYYYYhhmmssffff
constexpr std::size_t kMaxMessage = INT_MAX - KVN_TAILLE_ENTETE;  // m_nTailleMessage is an int

bool SansEntete(const CEnteteMsgSocket& e) { return e.nIdApplication == -1 && e.nFonction == -1; }

// ---- Encoding ---------------------------------------------------------------------

// Width of the value field of a non-NULL record: the parameter's size, never
// negative. The head carries the same number, so the receiver stays in step.
std::size_t TailleChamp(const CParam* p) {
    return p->nTaille > 0 ? static_cast<std::size_t>(p->nTaille) : 0;
}

// Bytes of the record of one parameter. Both passes of CreateMessage use it,
// and the second pass writes exactly this many bytes for each record.
std::size_t TailleRecord(const CParam* p, int unicode) {
    if (p->bNull) return kTailleTete;
    std::size_t champ = TailleChamp(p);
    switch (TypeByte(p->cType)) {
    case 0x01:
    case 0xF8: return kTailleTete + (unicode ? 2 * champ : champ);
    case 0x04:
    case 0x08:
    case 0xE7:
    case 0xE5:
    case 0xF5:
    case 0x0B: return kTailleTete + champ;
    default:
        // Counted as its head alone, not 3 + size: the head is all that is
        // written, and a receiver moves past the head alone for a type it
        // does not know, so the records after it stay where it looks.
        return kTailleTete;
    }
}

// Writes `valeur` (width bytes) at the start of a field of `champ` bytes and
// zeros after it; a field narrower than the value keeps its first bytes.
void EcritChamp(BYTE* out, std::size_t champ, const BYTE* valeur, std::size_t width) {
    std::size_t n = champ < width ? champ : width;
    std::memcpy(out, valeur, n);
    std::memset(out + n, 0, champ - n);
}

// Writes the record of p at out, exactly TailleRecord(p, unicode) bytes.
void EcritRecord(CParam* p, int unicode, BYTE* out) {
    unsigned type = TypeByte(p->cType);
    if (p->bNull) {
        out[0] = static_cast<BYTE>(type);  // unchanged, 0xF8 included
        p->nTaille = -1;
        PutLE16(out + 1, kTailleNull);
        return;
    }
    std::size_t champ = TailleChamp(p);
    out[0] = static_cast<BYTE>((type == 0xF8 && !unicode) ? 0x01 : type);
    PutLE16(out + 1, static_cast<std::uint16_t>(champ));
    BYTE* v = out + kTailleTete;
    BYTE octets[kTailleDate + 1];
    switch (type) {
    case 0x04:
        PutLE32(octets, static_cast<std::uint32_t>(p->valNum.lVal));
        EcritChamp(v, champ, octets, 4);  // a field of 8 gets 4 zero bytes after the value
        break;
    case 0x08: {
        double d = p->valNum.dVal;
        std::uint64_t bits;
        std::memcpy(&bits, &d, sizeof bits);
        PutLE64(octets, bits);
        EcritChamp(v, champ, octets, 8);
        break;
    }
    case 0xE7:
    case 0xE5:  // an unsigned 64-bit value travels as its 8 bytes, like a signed one
        PutLE64(octets, static_cast<std::uint64_t>(p->valNum.llVal));
        EcritChamp(v, champ, octets, 8);
        break;
    case 0xF5: {
        GUID g;  // copied byte-wise: the packed field may be misaligned
        std::memcpy(&g, &p->guidValeur, sizeof g);
        PutLE32(octets, g.Data1);
        PutLE16(octets + 4, g.Data2);
        PutLE16(octets + 6, g.Data3);
        std::memcpy(octets + 8, g.Data4, 8);
        EcritChamp(v, champ, octets, 16);
        break;
    }
    case 0x0B: {
        KvnTimestamp d = p->dateValeur;
        char texte[64];
        // The fraction is never sent. Out-of-range fields make a longer text,
        // of which the first 18 characters go out.
        std::snprintf(texte, sizeof texte, "%02d%02d%04d%02d%02d%02d0000", d.day, d.month,
                      d.year, d.hour, d.minute, d.second);
        std::memcpy(octets, texte, kTailleDate);
        EcritChamp(v, champ, octets, kTailleDate);
        break;
    }
    case 0x01:
    case 0xF8:
        if (unicode)
            WireWriteUtf16(p->pszValeur, champ, v);
        else
            WireWriteNarrow(p->pszValeur, champ, v);
        break;
    default:
        break;  // head only
    }
}

// ---- Decoding ---------------------------------------------------------------------

// Turns the digits at `texte` into a number; stops at the first non-digit.
unsigned ChampDecimal(const BYTE* texte, int n) {
    unsigned v = 0;
    for (int i = 0; i < n && texte[i] >= '0' && texte[i] <= '9'; ++i) v = v * 10 + (texte[i] - '0');
    return v;
}

// One record that the decoder keeps: its type byte, NULL flag, size field and
// value bytes, which lie within the body.
struct Record {
    unsigned type;
    bool bNull;
    std::size_t taille;
    const BYTE* valeur;
};

// Walks the `nb` records of a body of `taille` bytes and calls keep(record)
// for each record the decoder keeps, in order. The rules (see AnalyseMessage)
// live here only, so that sizing the decoded parameters and decoding them
// cannot disagree.
template <class F>
void ParcourtRecords(const BYTE* body, std::size_t taille, std::int32_t nb, int unicode, F&& keep) {
    std::size_t pos = 0;
    for (std::int32_t i = 0; i < nb; ++i) {
        if (taille - pos < kTailleTete) break;
        const unsigned type = body[pos];
        const std::uint16_t s = GetLE16(body + pos + 1);
        pos += kTailleTete;

        const bool bNull = s == kTailleNull;
        const std::size_t n = bNull ? 0 : s;
        if (n == 0 && !bNull && type != 0x01) continue;

        std::size_t octets;
        switch (type) {
        case 0x04:
        case 0x08:
        case 0xE7:
        case 0xE5:
        case 0x0B: octets = n; break;
        case 0x01:
        case 0xF8: octets = unicode ? 2 * n : n; break;
        default: continue;  // unknown type: dropped, only its head passed
        }
        if (octets > taille - pos) break;
        const BYTE* valeur = body + pos;
        pos += octets;

        // Values that cannot be held as their type are dropped, their bytes passed.
        if (type == 0x0B && !bNull && n != kTailleDate) continue;
        if ((type == 0x01 || type == 0xF8) && n > kWireMaxTextUnits) continue;
        keep(Record{type, bNull, n, valeur});
    }
}

// Room for the text of a record: one wide character at most per code unit
// or byte, and a terminator. NULL texts read as the empty text.
std::size_t TexteRecord(const Record& r) {
    return (r.type == 0x01 || r.type == 0xF8) ? r.taille + 1 : 0;
}

// Fills the empty parameter p from a kept record; a text goes to `texte`,
// which has room for TexteRecord(r) characters.
void DecodeRecord(const Record& r, int unicode, CParam* p, wchar_t* texte) {
    p->cType = static_cast<signed char>(r.type);
    p->bNull = r.bNull ? 1 : 0;
    p->nTaille = static_cast<short>(r.taille);
    switch (r.type) {
    case 0x04:
    case 0x08:
    case 0xE7:
    case 0xE5: {
        // A field wider than the 8-byte slot keeps its first 8 bytes; the
        // walk has moved past the whole field.
        std::size_t n = r.taille < 8 ? r.taille : 8;
        BYTE slot[8] = {};
        std::memcpy(slot, r.valeur, n);
        p->valNum.llVal = static_cast<std::int64_t>(GetLE64(slot));
        p->nTaille = static_cast<short>(n);
        break;
    }
    case 0x0B:
        if (!r.bNull) {
            KvnTimestamp& d = p->dateValeur;
            d.day = static_cast<std::uint16_t>(ChampDecimal(r.valeur, 2));
            d.month = static_cast<std::uint16_t>(ChampDecimal(r.valeur + 2, 2));
            d.year = static_cast<std::int16_t>(ChampDecimal(r.valeur + 4, 4));
            d.hour = static_cast<std::uint16_t>(ChampDecimal(r.valeur + 8, 2));
            d.minute = static_cast<std::uint16_t>(ChampDecimal(r.valeur + 10, 2));
            d.second = static_cast<std::uint16_t>(ChampDecimal(r.valeur + 12, 2));
            d.fraction = ChampDecimal(r.valeur + 14, 4);
        }
        break;
    default:  // 0x01, 0xF8
        if (unicode)
            WireReadUtf16(r.valeur, r.taille, texte);
        else
            WireReadNarrow(r.valeur, r.taille, texte);
        p->pszValeur = texte;
        break;
    }
}

// Where the decoded parameters of a received message live: after the copy of
// its header and body, in the same block (m_pBloc), the parameters, then
// their texts. Whether a parameter lies there tells ClearMessage who frees it.
constexpr std::size_t Arrondi(std::size_t n, std::size_t a) { return (n + a - 1) / a * a; }

bool DansBloc(const void* p, const BYTE* bloc, std::size_t taille) {
    const BYTE* b = static_cast<const BYTE*>(p);
    return bloc != nullptr && b >= bloc && b < bloc + taille;
}

}  // namespace

// ---- Construction and building ---------------------------------------------------

CMsgSocket::CMsgSocket()
    : m_pMessage(nullptr), m_nTailleMessage(0), m_nNbParam(0), m_bMessagePret(0),
      m_pBloc(nullptr), m_nTailleBloc(0) {
    m_entete.nIdApplication = -1;
    m_entete.nFonction = -1;
}

CMsgSocket::~CMsgSocket() { ClearMessage(); }

void CMsgSocket::SetEntete(int idApplication, int fonction, int idConnexion) {
    ClearMessage();
    m_entete.nIdApplication = idApplication;
    m_entete.nFonction = static_cast<signed char>(static_cast<unsigned char>(fonction));
    m_entete.nIdConnexion = static_cast<std::uint16_t>(idConnexion);
}

void CMsgSocket::SetFonction(int fonction) {
    m_entete.nFonction = static_cast<signed char>(static_cast<unsigned char>(fonction));
}

int CMsgSocket::AddParametre(int type, unsigned int size, const void* value, int bFirst) {
    CParam* p = new (std::nothrow) CParam;
    if (!p) return 0;
    p->cType = static_cast<signed char>(static_cast<unsigned char>(type));
    if (!value) {
        p->nTaille = 0;
        p->bNull = 1;
    } else {
        p->bNull = 0;
        // The type is compared as an int. The texts and the signed 64-bit
        // integer are also known under their byte (248, 231); the unsigned
        // 64-bit integer and the GUID only under their signed codes, so that
        // 229 and 245 build a NULL text like any other unknown int.
        switch (type) {
        case SQL_C_UBIGINT:
        case SQL_C_SBIGINT:
        case TypeByte(SQL_C_SBIGINT): {
            std::int64_t v;
            std::memcpy(&v, value, sizeof v);
            p->valNum.llVal = v;
            p->nTaille = 8;
            break;
        }
        case SQL_C_GUID: {
            GUID g;
            std::memcpy(&g, value, sizeof g);
            std::memcpy(&p->guidValeur, &g, sizeof g);
            p->nTaille = 16;
            break;
        }
        case SQL_C_WCHAR:
        case SQL_C_CHAR:
        case TypeByte(SQL_C_WCHAR): {
            // size is the text's length in wide characters. At most that many
            // are read, fewer when the text ends before, and the buffer holds
            // at most size + 1. A text of more than 32767 UTF-16 code units
            // (what a signed 16-bit size can count) keeps its first 32767,
            // without splitting a pair.
            const wchar_t* text = static_cast<const wchar_t*>(value);
            std::size_t chars = WireTextLength(text, size);
            std::size_t units = 0;
            chars = WireFitUnits(text, chars, kWireMaxTextUnits, &units);
            p->pszValeur = new (std::nothrow) wchar_t[chars + 1];
            if (!p->pszValeur) {
                delete p;
                return 0;
            }
            std::wmemcpy(p->pszValeur, text, chars);
            p->pszValeur[chars] = L'\0';
            p->nTaille = static_cast<short>(units);
            break;
        }
        case SQL_C_LONG: {
            std::int32_t v;
            std::memcpy(&v, value, sizeof v);
            p->valNum.lVal = v;
            p->nTaille = 4;
            break;
        }
        case SQL_C_DOUBLE: {
            double v;
            std::memcpy(&v, value, sizeof v);
            p->valNum.dVal = v;
            p->nTaille = 8;
            break;
        }
        case SQL_C_TIMESTAMP: {
            KvnTimestamp v;
            std::memcpy(&v, value, sizeof v);
            p->dateValeur = v;
            p->nTaille = static_cast<short>(kTailleDate);
            break;
        }
        default:
            // Unknown type: the value is dropped and a NULL text stands in.
            p->cType = SQL_C_CHAR;
            p->bNull = 1;
            break;
        }
    }
    if (bFirst == 1) return AddFirstParametre(p) ? 1 : 0;
    return AddParametre(p);
}

// A null parameter is refused (0) rather than appended: an empty slot would
// be a record that no encoder pass can write. When the list cannot grow, the
// parameter, already the message's, is freed.
int CMsgSocket::AddParametre(CParam* param) {
    if (!param) return 0;
    if (m_listParam.Add(param) < 0) {
        delete param;
        return 0;
    }
    ++m_entete.nNbParam;
    ++m_nNbParam;
    return 1;
}

int CMsgSocket::AddFirstParametre(CParam* param) {
    if (!param) return 0;
    if (!m_listParam.InsertAt(0, param)) {
        delete param;
        return 0;
    }
    ++m_entete.nNbParam;
    ++m_nNbParam;
    return 1;
}

int CMsgSocket::AddFirstParametre(int type, unsigned int size, const void* value) {
    return AddParametre(type, size, value, 1);
}

// ---- Encoding ---------------------------------------------------------------------

int CMsgSocket::CreateMessage(int unicode) {
    if (SansEntete(m_entete)) return 0;
    int u = (unicode == -1 || unicode != 0) ? 1 : 0;
    m_entete.bUnicode = static_cast<signed char>(u);

    // First pass: the exact body length, so that the buffer is allocated once.
    std::size_t taille = 0;
    int n = m_listParam.GetSize();
    for (int i = 0; i < n; ++i) {
        const CParam* p = static_cast<const CParam*>(m_listParam.GetAt(i));
        if (p) taille += TailleRecord(p, u);
        if (taille > kMaxMessage) {
            m_bMessagePret = 0;
            return 0;
        }
    }

    m_entete.nTailleData = static_cast<std::uint32_t>(taille);
    // A received message's copy shares its block with the decoded
    // parameters, which stay.
    if (m_pMessage != m_pBloc) delete[] m_pMessage;
    m_pMessage = new (std::nothrow) BYTE[taille + KVN_TAILLE_ENTETE];
    if (!m_pMessage) {
        m_nTailleMessage = 0;
        m_bMessagePret = 0;
        return 0;
    }
    m_nTailleMessage = static_cast<int>(taille + KVN_TAILLE_ENTETE);
    EncodeEntete(m_entete, m_pMessage);

    // Second pass: every record takes exactly the bytes the first pass counted.
    BYTE* out = m_pMessage + KVN_TAILLE_ENTETE;
    for (int i = 0; i < n; ++i) {
        CParam* p = static_cast<CParam*>(m_listParam.GetAt(i));
        if (!p) continue;
        std::size_t record = TailleRecord(p, u);  // before the NULL size is set to -1
        EcritRecord(p, u, out);
        out += record;
    }
    m_bMessagePret = 1;
    return 1;
}

// ---- Decoding ---------------------------------------------------------------------

// The caller guarantees that `data` holds entete.nTailleData bytes (the
// receive loop reads exactly that many after checking the header). Within
// those bytes, whatever the records say, nothing is read outside the body and
// nothing is written outside a value:
// - a record whose 3-byte head does not fit in what is left of the body ends
//   the decoding; so does a record whose value would reach beyond the body.
//   The records read so far are kept and the message is ready. So a count
//   larger than the records present ends where the body ends, and a negative
//   count means no record;
// - an empty non-NULL value of any type but SQL_C_CHAR is dropped;
// - a type the decoder does not know (the GUID among them) is dropped, and the
//   decoding moves past its 3-byte head only. SQL_C_UBIGINT is read back as
//   the 8 bytes the encoder writes for it, like SQL_C_SBIGINT;
// - a numeric field wider than 8 bytes keeps its first 8 bytes (its size then
//   reads 8) and the decoding moves past the whole field;
// - a timestamp whose size is not 18 is dropped, and the decoding moves past
//   its bytes;
// - a text of more than 32767 characters is dropped, and the decoding moves
//   past its bytes.
//
// The parameters are not allocated one by one: a first walk over the records
// sizes them, and they are built, texts included, in the block that holds the
// copy of the message. They belong to the message, to be read or copied
// (never assigned to: their texts are not theirs to free) until it is
// cleared; a parameter added later with AddParametre is freed on its own.
int CMsgSocket::AnalyseMessage(CEnteteMsgSocket& entete, BYTE* data) {
    if (!data) return 0;
    // Copied first: entete may be this message's own header and data its own
    // buffer, both of which ClearMessage resets.
    CEnteteMsgSocket recu = entete;
    const std::size_t taille = recu.nTailleData;
    const int unicode = recu.bUnicode;

    std::size_t nbParams = 0, nbCaracteres = 0;
    if (taille <= kMaxMessage) {
        ParcourtRecords(data, taille, recu.nNbParam, unicode, [&](const Record& r) {
            ++nbParams;
            nbCaracteres += TexteRecord(r);
        });
    }
    const std::size_t debutParams = Arrondi(taille + KVN_TAILLE_ENTETE, alignof(std::max_align_t));
    const std::size_t debutTextes = Arrondi(debutParams + nbParams * sizeof(CParam), alignof(wchar_t));
    const std::size_t tailleBloc = debutTextes + nbCaracteres * sizeof(wchar_t);
    BYTE* copie = nullptr;
    if (taille <= kMaxMessage) {
        copie = new (std::nothrow) BYTE[tailleBloc];
        if (copie) {
            EncodeEntete(recu, copie);
            if (taille) std::memcpy(copie + KVN_TAILLE_ENTETE, data, taille);
        }
    }
    ClearMessage();
    if (!copie) return 0;  // a body this size cannot be held: the message stays empty

    m_entete = recu;
    m_entete.nNbParam = 0;  // counts the parameters kept
    m_pBloc = copie;
    m_nTailleBloc = tailleBloc;
    m_pMessage = copie;
    m_nTailleMessage = static_cast<int>(taille + KVN_TAILLE_ENTETE);

    CParam* param = reinterpret_cast<CParam*>(copie + debutParams);
    wchar_t* texte = reinterpret_cast<wchar_t*>(copie + debutTextes);
    ParcourtRecords(copie + KVN_TAILLE_ENTETE, taille, recu.nNbParam, unicode, [&](const Record& r) {
        CParam* p = new (param++) CParam;
        DecodeRecord(r, unicode, p, texte);
        texte += TexteRecord(r);
        if (m_listParam.Add(p) < 0) return;  // out of memory: this one is not kept
        ++m_entete.nNbParam;
        ++m_nNbParam;
    });
    m_bMessagePret = 1;
    return 1;
}

int CMsgSocket::AnalyseMessageComplet(BYTE* message) {
    if (!message) return 0;
    // The caller guarantees 16 + nTailleData bytes at message.
    CEnteteMsgSocket entete;
    DecodeEntete(message, entete);
    return AnalyseMessage(entete, message + KVN_TAILLE_ENTETE);
}

void CMsgSocket::ClearMessage() {
    m_bMessagePret = 0;
    m_entete.nIdApplication = -1;
    m_entete.nFonction = -1;
    m_entete.nNbParam = 0;
    m_entete.nTailleData = 0;
    int n = m_listParam.GetSize();
    for (int i = 0; i < n; ++i) {
        // Parameters built in the block go with it, their texts too.
        CParam* p = static_cast<CParam*>(m_listParam.GetAt(i));
        if (!DansBloc(p, m_pBloc, m_nTailleBloc)) delete p;
    }
    m_listParam.RemoveAll();
    m_nNbParam = 0;
    if (m_pMessage != m_pBloc) delete[] m_pMessage;
    m_pMessage = nullptr;
    m_nTailleMessage = 0;
    delete[] m_pBloc;
    m_pBloc = nullptr;
    m_nTailleBloc = 0;
}

BYTE* CMsgSocket::GetMessageW(int* pLen) {
    if (m_bMessagePret && !SansEntete(m_entete) && m_pMessage) {
        if (pLen) *pLen = m_nTailleMessage;
        return m_pMessage;
    }
    if (pLen) *pLen = 0;
    return nullptr;
}

// ---- Accessors --------------------------------------------------------------------

int CMsgSocket::GetFonction() { return m_entete.nFonction; }

int CMsgSocket::GetIdApplication() { return m_entete.nIdApplication; }

int CMsgSocket::GetIdConnexion() { return m_entete.nIdConnexion; }

int CMsgSocket::GetNbParametre() { return m_entete.nNbParam; }

int CMsgSocket::GetMsgUnicode() { return m_entete.bUnicode; }

int CMsgSocket::GetTypeParametre(int i) {
    if (i < 0 || i >= m_listParam.GetSize()) return 0;
    const CParam* p = static_cast<const CParam*>(m_listParam.GetAt(i));
    return p ? TypeByte(p->cType) : 0;
}

int CMsgSocket::GetParametre(int i, CParam** param) {
    if (i < 0) return 0;
    return m_GetParam(static_cast<unsigned int>(i), param);
}

int CMsgSocket::m_GetParam(unsigned int i, CParam** param) {
    if (!param || i >= static_cast<unsigned int>(m_listParam.GetSize())) return 0;
    *param = static_cast<CParam*>(m_listParam.GetAt(static_cast<int>(i)));
    return 1;
}

void CMsgSocket::SetParamComm(CParamComm* p) {
    if (p) m_paramComm = *p;
}

void CMsgSocket::GetParamComm(CParamComm* p) {
    if (p) *p = m_paramComm;
}

// ---- Header check -----------------------------------------------------------------

int CMsgSocket::m_IsEnteteMessageOk(CEnteteMsgSocket* entete) {
    if (!entete) return 0;
    switch (entete->nFonction) {
    case 0: case 1: case 5: case 6: case 7: case 8: case 9:
    case 20: case 21: case 25: case 26: case 28: case 29:
        break;
    default:
        if (entete->nFonction < 101 || entete->nFonction > 120) return 0;
        break;
    }
    if (entete->nIdApplication < 0 || entete->nIdApplication > 128000) return 0;
    if (entete->nNbParam > 50000) return 0;  // signed: a negative count passes
    if (entete->nTailleData > 256000u) return 0;
    return 1;
}
