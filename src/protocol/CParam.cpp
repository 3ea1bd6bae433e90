// Typed values (CParam), stored-procedure parameters (CParamProc) and the
// message header's copy (CEnteteMsgSocket): construction, copy and
// assignment. Rendering a value as text is in ValueText.cpp; the wire form of
// values is in CMsgSocket.cpp.
//
// Allocation: pszValeur is allocated with new[] and released with delete[];
// an application variable owned by a CParamProc (bVariableAllouee) is released
// with free(), as an untyped block.
#include <korvane/CMsgSocket.h>
#include <korvane/CParam.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "protocol/ValueTypes.h"

namespace {

// Size of the application variable that the library associates with a value
// type, for the copy of an owned variable; 0 for a type without one.
std::size_t VariableSize(signed char cType) {
    switch (TypeByte(cType)) {
    case 0x04: return 4;
    case 0x08:
    case 0xE7:
    case 0xE5: return 8;
    case 0x0B: return 16;
    case 0xF5: return 16;
    case 0x01:
    case 0xF8: return 16384;
    default: return 0;
    }
}

}  // namespace

// ---- CParam -------------------------------------------------------------------

CParam::CParam()
    : cType(0), nTaille(0), bNull(0), valNum(), pszValeur(nullptr), dateValeur(), guidValeur() {}

CParam::CParam(const CParam& src) : CParam() { *this = src; }

CParam::~CParam() {
    delete[] pszValeur;
    pszValeur = nullptr;
}

CParam& CParam::operator=(const CParam& src) {
    if (this == &src) return *this;
    cType = src.cType;
    nTaille = src.nTaille;
    bNull = src.bNull;

    if (bNull) {
        // The numeric, date and GUID slots keep what they held.
        delete[] pszValeur;
        pszValeur = nullptr;
        return *this;
    }

    switch (TypeByte(src.cType)) {
    case 0x0B:
        dateValeur = src.dateValeur;
        valNum.llVal = 0;
        break;
    case 0x01:
    case 0xF8: {
        const wchar_t* text = src.pszValeur ? src.pszValeur : L"";
        std::size_t n = std::wcslen(text) + 1;
        // A buffer holding a longer text is reused; anything else is replaced.
        if (pszValeur && std::wcslen(pszValeur) < n) {
            delete[] pszValeur;
            pszValeur = nullptr;
        }
        if (!pszValeur) pszValeur = new (std::nothrow) wchar_t[n];
        if (pszValeur) std::wmemcpy(pszValeur, text, n);
        valNum.llVal = 0;
        dateValeur = KvnTimestamp();
        break;
    }
    default:
        // An existing text buffer is kept.
        valNum = src.valNum;
        dateValeur = KvnTimestamp();
        // Byte-wise: the packed GUID field may be misaligned for GUID's own copy.
        if (TypeByte(src.cType) == 0xF5) std::memcpy(&guidValeur, &src.guidValeur, sizeof(GUID));
        break;
    }
    return *this;
}

// ---- CParamProc ---------------------------------------------------------------

CParamProc::CParamProc() : CParam(), nSens(KVN_PARAM_IN), pVariable(nullptr), bVariableAllouee(0) {}

CParamProc::CParamProc(const CParamProc& src) : CParamProc() { *this = src; }

CParamProc::~CParamProc() {
    if (bVariableAllouee && pVariable) {
        std::free(pVariable);
        pVariable = nullptr;
    }
    bVariableAllouee = 0;
    // ~CParam releases the text.
}

// Who holds the variable after the copy, so that every variable is freed
// exactly once:
// - a source that owns its variable (bVariableAllouee set) keeps it; the
//   target gets its own copy of the size the library associates with the
//   type (4, 8, 16 or 16384 bytes) and owns that copy. For a type without
//   such a size, or when the copy cannot be allocated, the target refers to
//   the source's variable without owning it.
// - otherwise the target refers to the source's variable and its own flag
//   stays as it was (an application that set it has made the target the
//   owner of whatever variable it is given).
CParamProc& CParamProc::operator=(const CParamProc& src) {
    if (this == &src) return *this;
    CParam::operator=(src);
    nSens = src.nSens;

    if (bVariableAllouee && pVariable) std::free(pVariable);
    pVariable = nullptr;

    if (src.bVariableAllouee && src.pVariable) {
        std::size_t size = VariableSize(src.cType);
        void* copy = size ? std::malloc(size) : nullptr;
        if (copy) {
            std::memcpy(copy, src.pVariable, size);
            pVariable = copy;
            bVariableAllouee = 1;
        } else {
            pVariable = src.pVariable;
            bVariableAllouee = 0;
        }
    } else {
        pVariable = src.pVariable;
    }
    return *this;
}

CParamProc& CParamProc::operator=(const CParam& src) {
    CParam::operator=(src);
    nSens = KVN_PARAM_IN;
    if (bVariableAllouee && pVariable) {
        std::free(pVariable);
        pVariable = nullptr;  // the flag stays as it was
    }
    return *this;
}

// ---- CEnteteMsgSocket -----------------------------------------------------------

CEnteteMsgSocket::CEnteteMsgSocket()
    : nIdApplication(0), nIdConnexion(0), nFonction(0), nNbParam(0), nTailleData(0), bUnicode(0) {}

CEnteteMsgSocket& CEnteteMsgSocket::operator=(const CEnteteMsgSocket& src) {
    nIdApplication = src.nIdApplication;
    nIdConnexion = src.nIdConnexion;
    nFonction = src.nFonction;
    nNbParam = src.nNbParam;
    nTailleData = src.nTailleData;
    bUnicode = src.bUnicode;
    return *this;
}
