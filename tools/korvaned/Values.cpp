// Conversions between message values and database values.
#include "Values.h"

#include <cstdint>
#include <limits>

#include "Text.h"
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
