// The text of a value and the names of value types, as the message trace and
// the column readers show them.
#include "protocol/ValueText.h"

#include <cstring>
#include <cwchar>

#include "platform/Uuid.h"
#include "protocol/ValueTypes.h"

void ParamValeurToDStr(const CParam* p, DStr& texte, int bGuillemets) {
    texte.Empty();
    if (!p) return;
    if (p->bNull) {
        texte = L"NULL";
        return;
    }
    switch (TypeByte(p->cType)) {
    case 0x01:
    case 0xF8: {
        // Concatenated rather than formatted: a text of any length and any
        // content goes through unchanged.
        const wchar_t* text = p->pszValeur ? p->pszValeur : L"";
        if (bGuillemets) {
            texte = L"\"";
            texte += text;
            texte += L'"';
        } else {
            texte = text;
        }
        break;
    }
    case 0x04:
        texte.Printf(L"%ld", static_cast<long>(p->valNum.lVal));
        break;
    case 0x08:
        texte.Printf(L"%lf", p->valNum.dVal);
        break;
    case 0x0B: {
        KvnTimestamp d = p->dateValeur;
        texte.Printf(L"%02d/%02d/%04d %02d:%02d:%02d:%04d", d.day, d.month, d.year, d.hour,
                     d.minute, d.second, static_cast<int>(d.fraction));
        break;
    }
    case 0xE7:
        texte.Printf(L"%lld", static_cast<long long>(p->valNum.llVal));
        break;
    case 0xF5: {
        GUID guid;  // copied byte-wise: the packed field may be misaligned
        std::memcpy(&guid, &p->guidValeur, sizeof guid);
        wchar_t text[37];
        if (KvnUuidToString(&guid, text)) texte = text;
        break;
    }
    default:
        break;  // a type without a text form renders as the empty text
    }
}

void ParamValeurToBuffer(const CParam* p, wchar_t* buffer, int* pCapacite, int bGuillemets) {
    // A negative capacity, like 0, leaves no room to write even a terminator.
    if (!p || !buffer || !pCapacite || *pCapacite <= 0) return;
    if (p->bNull) {
        // "NULL" only when it fits with room to spare, as callers expect.
        if (*pCapacite > 4)
            std::wcscpy(buffer, L"NULL");
        else
            buffer[0] = L'\0';
        return;
    }
    DStr texte;
    ParamValeurToDStr(p, texte, bGuillemets);
    if (texte.Length() <= *pCapacite)
        std::wmemcpy(buffer, texte.GetString(), static_cast<std::size_t>(texte.Length()) + 1);
    else
        *pCapacite = texte.Length();
}

wchar_t* GetNomType(int type, wchar_t* nom, int bStyleOdbc) {
    if (!nom) return nom;
    // The signed spellings of the codes name the same types as their bytes.
    if (type < 0 && type >= -128) type &= 0xFF;
    const wchar_t* name;
    switch (type) {
    case 0x01:
    case 0xF8: name = bStyleOdbc ? L"SQL_C_CHAR" : L"CHAR"; break;
    case 0x04: name = bStyleOdbc ? L"SQL_C_LONG" : L"LONG"; break;
    case 0x08: name = bStyleOdbc ? L"SQL_C_DOUBLE" : L"DECIMAL"; break;
    case 0x0B: name = bStyleOdbc ? L"SQL_C_TIMESTAMP" : L"DATE"; break;
    case 0xE7: name = bStyleOdbc ? L"SQL_C_SBIGINT" : L"BIGINT"; break;
    case 0xF5: name = bStyleOdbc ? L"SQL_GUID" : L"UNIQUEIDENTIFIER"; break;
    default: name = L"INCONNU"; break;
    }
    std::wcscpy(nom, name);
    return nom;
}
