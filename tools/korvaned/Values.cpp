// Conversions between message values and database values.
#include "Values.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

#include "Utf8.h"
#include "protocol/ValueTypes.h"
#include "protocol/WireHeader.h"
#include "protocol/WireText.h"

namespace {

// Type byte of a parameter, as its signed code.
int SignedType(const CParam* p) { return static_cast<signed char>(p->cType); }

}  // namespace

bool ReadDbValue(CMsgSocket& message, int i, DbValue* value) {
    CParam* p = nullptr;
    if (!message.GetParametre(i, &p) || !p) return false;
    DbValue v;
    v.null = p->bNull != 0;
    switch (SignedType(p)) {
    case SQL_C_LONG:
        v.kind = DbValue::Kind::Integer;
        v.integer = p->valNum.lVal;
        break;
    case SQL_C_SBIGINT:
        v.kind = DbValue::Kind::BigInt;
        v.integer = p->valNum.llVal;
        break;
    case SQL_C_DOUBLE:
        v.kind = DbValue::Kind::Double;
        v.real = p->valNum.dVal;
        break;
    case SQL_C_TIMESTAMP:
        v.kind = DbValue::Kind::Timestamp;
        v.timestamp.year = p->dateValeur.year;
        v.timestamp.month = p->dateValeur.month;
        v.timestamp.day = p->dateValeur.day;
        v.timestamp.hour = p->dateValeur.hour;
        v.timestamp.minute = p->dateValeur.minute;
        v.timestamp.second = p->dateValeur.second;
        v.timestamp.fraction = p->dateValeur.fraction;
        break;
    case SQL_C_CHAR:
    case SQL_C_WCHAR:
        v.kind = DbValue::Kind::Text;
        if (!v.null) v.text = ToUtf8(p->pszValeur);
        break;
    default:
        return false;
    }
    *value = v;
    return true;
}

bool ReadText(CMsgSocket& message, int i, std::string* text) {
    CParam* p = nullptr;
    if (!message.GetParametre(i, &p) || !p || p->bNull) return false;
    if (SignedType(p) != SQL_C_CHAR && SignedType(p) != SQL_C_WCHAR) return false;
    *text = ToUtf8(p->pszValeur);
    return true;
}

bool ReadLong(CMsgSocket& message, int i, int* value) {
    CParam* p = nullptr;
    if (!message.GetParametre(i, &p) || !p || p->bNull || SignedType(p) != SQL_C_LONG) return false;
    *value = p->valNum.lVal;
    return true;
}

void AddLong(CMsgSocket& message, int value) {
    std::int32_t v = value;
    message.AddParametre(SQL_C_LONG, 4, &v);
}

void AddText(CMsgSocket& message, const std::string& utf8, int textType) {
    // A receiver drops an empty text record of any type but SQL_C_CHAR, and
    // the values after it would move up one place: an empty wide text goes
    // as a NULL of its type, which the client reads as the empty text.
    if (utf8.empty() && TypeByte(textType) != TypeByte(SQL_C_CHAR)) {
        AddNull(message, textType);
        return;
    }
    std::wstring wide = FromUtf8(utf8);
    std::size_t units = 0;
    const std::size_t chars = WireFitUnits(wide.c_str(), wide.size(), kMaxTextUnits, &units);
    wide.resize(chars);
    message.AddParametre(textType, static_cast<unsigned int>(wide.size()), wide.c_str());
}

void AddNull(CMsgSocket& message, int type) { message.AddParametre(type, 0, nullptr); }

int TypeOfKind(DbValue::Kind kind) {
    switch (kind) {
    case DbValue::Kind::Integer: return SQL_C_LONG;
    case DbValue::Kind::BigInt: return SQL_C_SBIGINT;
    case DbValue::Kind::Double: return SQL_C_DOUBLE;
    case DbValue::Kind::Timestamp: return SQL_C_TIMESTAMP;
    case DbValue::Kind::Text: break;
    }
    return SQL_C_CHAR;
}

void AddDbValue(CMsgSocket& message, const DbValue& value, int textType) {
    const int type = value.kind == DbValue::Kind::Text ? textType : TypeOfKind(value.kind);
    if (value.null) {
        AddNull(message, type);
        return;
    }
    switch (value.kind) {
    case DbValue::Kind::Integer:
        AddLong(message, static_cast<int>(value.integer));
        break;
    case DbValue::Kind::BigInt: {
        std::int64_t v = value.integer;
        message.AddParametre(SQL_C_SBIGINT, 8, &v);
        break;
    }
    case DbValue::Kind::Double: {
        double v = value.real;
        message.AddParametre(SQL_C_DOUBLE, 8, &v);
        break;
    }
    case DbValue::Kind::Timestamp: {
        KvnTimestamp ts{};
        ts.year = static_cast<std::int16_t>(value.timestamp.year);
        ts.month = static_cast<std::uint16_t>(value.timestamp.month);
        ts.day = static_cast<std::uint16_t>(value.timestamp.day);
        ts.hour = static_cast<std::uint16_t>(value.timestamp.hour);
        ts.minute = static_cast<std::uint16_t>(value.timestamp.minute);
        ts.second = static_cast<std::uint16_t>(value.timestamp.second);
        ts.fraction = value.timestamp.fraction;
        message.AddParametre(SQL_C_TIMESTAMP, 18, &ts);
        break;
    }
    case DbValue::Kind::Text:
        AddText(message, value.text, textType);
        break;
    }
}

// ---- Rows as they travel -----------------------------------------------------------

namespace {

constexpr std::size_t kHead = 3;              // type byte and 16-bit size of a record
constexpr std::uint16_t kNullSize = 0xFFFF;
constexpr std::size_t kTimestampDigits = 18;  // DDMMYYYYhhmmss then 0000

// Writes `digits` decimal digits of v at out.
void Digits(BYTE* out, unsigned v, int digits) {
    for (int i = digits - 1; i >= 0; --i, v /= 10) out[i] = static_cast<BYTE>('0' + v % 10);
}

}  // namespace

BYTE* WireRows::Append(std::size_t n) {
    if (size_ + n > capacity_) {
        std::size_t capacity = capacity_ ? capacity_ : 64 * 1024;
        while (capacity < size_ + n) capacity *= 2;
        std::unique_ptr<BYTE[]> bigger(new BYTE[capacity]);
        if (size_) std::memcpy(bigger.get(), bytes_.get(), size_);
        bytes_ = std::move(bigger);
        capacity_ = capacity;
    }
    BYTE* at = bytes_.get() + size_;
    size_ += n;
    return at;
}

// The record's head; returns where its valueBytes go.
BYTE* WireRows::Head(int type, std::size_t size, std::size_t valueBytes) {
    BYTE* at = Append(kHead + valueBytes);
    at[0] = static_cast<BYTE>(type);
    PutLE16(at + 1, static_cast<std::uint16_t>(size));
    return at + kHead;
}

void WireRows::Null(DbValue::Kind kind) { Head(TypeOfKind(kind), kNullSize, 0); }

void WireRows::Integer(std::int64_t value) {
    PutLE32(Head(SQL_C_LONG, 4, 4), static_cast<std::uint32_t>(static_cast<std::int32_t>(value)));
}

void WireRows::BigInt(std::int64_t value) {
    PutLE64(Head(SQL_C_SBIGINT, 8, 8), static_cast<std::uint64_t>(value));
}

void WireRows::Double(double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    PutLE64(Head(SQL_C_DOUBLE, 8, 8), bits);
}

void WireRows::Timestamp(const DbTimestamp& value) {
    // The fields as AddDbValue narrows them, written as the encoder writes
    // them: day, month, year, hour, minute, second, and no fraction.
    const int day = static_cast<std::uint16_t>(value.day), month = static_cast<std::uint16_t>(value.month);
    const int year = static_cast<std::int16_t>(value.year), hour = static_cast<std::uint16_t>(value.hour);
    const int minute = static_cast<std::uint16_t>(value.minute), second = static_cast<std::uint16_t>(value.second);
    BYTE* out = Head(SQL_C_TIMESTAMP, kTimestampDigits, kTimestampDigits);
    if (day <= 99 && month <= 99 && year >= 0 && year <= 9999 && hour <= 99 && minute <= 99 && second <= 99) {
        Digits(out, day, 2);
        Digits(out + 2, month, 2);
        Digits(out + 4, year, 4);
        Digits(out + 8, hour, 2);
        Digits(out + 10, minute, 2);
        Digits(out + 12, second, 2);
        std::memset(out + 14, '0', 4);
        return;
    }
    // A field beyond its digits makes a longer text, of which the first 18
    // characters go.
    char text[64];
    std::snprintf(text, sizeof text, "%02d%02d%04d%02d%02d%02d0000", day, month, year, hour, minute, second);
    std::memcpy(out, text, kTimestampDigits);
}

void WireRows::Text(const char* utf8, std::size_t bytes) {
    // The common case, ASCII: a byte is a code unit. The text ends at its
    // first NUL, as a wide string does.
    std::size_t n = 0;
    while (n < bytes && utf8[n] != 0 && static_cast<unsigned char>(utf8[n]) < 0x80) ++n;
    if (n == bytes || utf8[n] == 0) {
        const std::size_t units = n < static_cast<std::size_t>(kMaxTextUnits) ? n : kMaxTextUnits;
        BYTE* out = Head(SQL_C_CHAR, units, 2 * units);
        for (std::size_t i = 0; i < units; ++i, out += 2) {
            out[0] = static_cast<BYTE>(utf8[i]);
            out[1] = 0;
        }
        return;
    }
    // Anything else as AddText and the encoder take it: to wide characters,
    // up to the first NUL, at most kMaxTextUnits code units.
    const std::wstring wide = FromUtf8(utf8, bytes);
    std::size_t units = 0;
    WireFitUnits(wide.c_str(), WireTextLength(wide.c_str(), wide.size()), kMaxTextUnits, &units);
    WireWriteUtf16(wide.c_str(), units, Head(SQL_C_CHAR, units, 2 * units));
}

void WireRows::EndRow() { ends_.push_back(size_); }

int WireRows::Fit(int maxRows, std::size_t maxBytes) const {
    int n = 0;
    const std::size_t start = Start();
    while (n < Rows() && n < maxRows && (n == 0 || ends_[first_ + n] - start <= maxBytes)) ++n;
    return n;
}

void WireRows::Drop(int n) {
    first_ += static_cast<std::size_t>(n);
    if (first_ < ends_.size() && first_ * 2 < ends_.size()) return;
    // Compacted once half of the rows are gone: what is left is at most a
    // block ahead.
    const std::size_t start = Start();
    // No buffer yet when no row ever came, and memmove wants one even for nothing.
    if (size_ > start) std::memmove(bytes_.get(), bytes_.get() + start, size_ - start);
    size_ -= start;
    ends_.erase(ends_.begin(), ends_.begin() + static_cast<std::ptrdiff_t>(first_));
    for (std::size_t& end : ends_) end -= start;
    first_ = 0;
}

void WireRows::Clear() {
    size_ = 0;
    ends_.clear();
    first_ = 0;
}

bool EncodedAnswer::Set(int idApplication, int fonction, int idConnexion, CParamComm& comm,
                        const std::vector<int>& longs, const WireRows& cells, int rows, int values) {
    SetEntete(idApplication, fonction, idConnexion);
    SetParamComm(&comm);
    const std::size_t cellBytes = cells.BytesOf(rows);
    const std::size_t body = longs.size() * (kHead + 4) + cellBytes;
    m_pMessage = new (std::nothrow) BYTE[KVN_TAILLE_ENTETE + body];
    if (!m_pMessage) return false;
    m_entete.nNbParam = static_cast<std::int32_t>(longs.size()) + values;
    m_entete.nTailleData = static_cast<std::uint32_t>(body);
    m_entete.bUnicode = 1;
    m_nNbParam = m_entete.nNbParam;
    m_nTailleMessage = static_cast<int>(KVN_TAILLE_ENTETE + body);
    EncodeEntete(m_entete, m_pMessage);
    BYTE* out = m_pMessage + KVN_TAILLE_ENTETE;
    for (int v : longs) {
        out[0] = SQL_C_LONG;
        PutLE16(out + 1, 4);
        PutLE32(out + 3, static_cast<std::uint32_t>(v));
        out += kHead + 4;
    }
    if (cellBytes) std::memcpy(out, cells.Data(), cellBytes);
    m_bMessagePret = 1;
    return true;
}
