// A value that an application declares to BindParameter or SetStoredProcParams.
#include "operations/DeclaredValue.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "protocol/ValueTypes.h"
#include "protocol/WireText.h"

namespace {

// The numeric values of declared parameters go out in a field of 8 bytes,
// the long included; the service reads the first 4 of a long.
const short kTailleNumerique = 8;
const short kTailleDate = 18;

}  // namespace

bool StoreDeclaredValue(CParam& slot, unsigned char t, const void* valeur, unsigned int taille) {
    delete[] slot.pszValeur;
    slot.pszValeur = nullptr;
    slot.valNum.llVal = 0;
    slot.dateValeur = KvnTimestamp();
    slot.bNull = 0;
    switch (t) {
    case TypeByte(SQL_C_LONG):
        std::memcpy(&slot.valNum.lVal, valeur, 4);
        slot.nTaille = kTailleNumerique;
        return true;
    case TypeByte(SQL_C_DOUBLE):
    case TypeByte(SQL_C_SBIGINT):
        std::memcpy(&slot.valNum.llVal, valeur, 8);
        slot.nTaille = kTailleNumerique;
        return true;
    case TypeByte(SQL_C_TIMESTAMP):
        std::memcpy(&slot.dateValeur, valeur, sizeof(KvnTimestamp));
        slot.nTaille = kTailleDate;
        return true;
    default:
        break;
    }
    // A text: nothing past the `taille` characters declared is read. A
    // declaration beyond what a record can hold keeps its first code units,
    // without splitting a pair.
    const wchar_t* text = static_cast<const wchar_t*>(valeur);
    std::size_t units = WireDeclaredUnits(text, taille);
    if (units > kWireMaxTextUnits) units = kWireMaxTextUnits;
    std::size_t n = WireFitUnits(text, WireTextLength(text, taille), units, nullptr);
    slot.pszValeur = new (std::nothrow) wchar_t[n + 1];
    if (slot.pszValeur == nullptr) {
        slot.bNull = 1;
        return false;
    }
    std::wmemcpy(slot.pszValeur, text, n);
    slot.pszValeur[n] = L'\0';
    slot.nTaille = static_cast<short>(units);
    return true;
}
