// Typed values: CValNum (the 8-byte numeric slot), CParam (one value of any
// type) and CParamProc (a stored-procedure parameter).
//
// Arrays of these cross the library's interface and applications index them,
// so their layouts are packed (no padding) and fixed.
#ifndef KORVANE_CPARAM_H
#define KORVANE_CPARAM_H

#include <cstdint>

#include <korvane/KvnDefs.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

#pragma pack(push, 1)

// The layout of the ODBC timestamp structure: 16 bytes.
struct KvnTimestamp {
    std::int16_t year;
    std::uint16_t month;
    std::uint16_t day;
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint32_t fraction;
};

union CValNum {
    std::int32_t lVal;  // SQL_C_LONG
    double dVal;        // SQL_C_DOUBLE
    std::int64_t llVal; // SQL_C_SBIGINT
    CValNum() : llVal(0) {}
    CValNum(const CValNum& src) : llVal(src.llVal) {}
    CValNum& operator=(const CValNum& src) {
        llVal = src.llVal; // the 8 bytes, whatever the type
        return *this;
    }
};

class KVN_API CParam {
public:
    signed char cType;       // value type code (SQL_C_...)
    short nTaille;           // text: UTF-16 code units; bytes otherwise, 18 for a timestamp
    kvn::Bool bNull;         // non-zero: the value is NULL
    CValNum valNum;          // SQL_C_LONG, SQL_C_DOUBLE, SQL_C_SBIGINT
    wchar_t* pszValeur;      // owned zero-terminated text of SQL_C_CHAR and SQL_C_WCHAR (new[])
    KvnTimestamp dateValeur; // SQL_C_TIMESTAMP
    kvn::GUID guidValeur;    // SQL_C_GUID

    CParam();
    // A copy made with the assignment below (the text is duplicated).
    CParam(const CParam& src);
    ~CParam();

    // Copies type, size and NULL flag; for a NULL value only releases this
    // value's text; otherwise copies the slot of the source's type (see the
    // implementation for which other slots are cleared or kept).
    CParam& operator=(const CParam& src);
};

class KVN_API CParamProc : public CParam {
public:
    int nSens;                  // KVN_PARAM_IN, KVN_PARAM_INOUT, KVN_PARAM_OUT
    void* pVariable;            // the application's variable of an OUT or IN/OUT parameter
    kvn::Bool bVariableAllouee; // the object owns pVariable, a malloc block (the library leaves it 0)

    CParamProc();
    CParamProc(const CParamProc& src);
    ~CParamProc();

    CParamProc& operator=(const CParamProc& src);
    CParamProc& operator=(const CParam& src);
};

#pragma pack(pop)

#endif
