/// \file
/// Typed values: CValNum (the 8-byte numeric slot), CParam (one value of any
/// type) and CParamProc (a stored-procedure parameter).
///
/// Arrays of these cross the library's interface and applications index them,
/// so their layouts are packed (no padding) and fixed.
#ifndef KORVANE_CPARAM_H
#define KORVANE_CPARAM_H

#include <cstdint>

#include <korvane/KvnDefs.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

#pragma pack(push, 1)

/// A date and time in the layout of the ODBC timestamp structure (16 bytes):
/// the variable of a SQL_C_TIMESTAMP parameter given to
/// CKorvaneClient::SetStoredProcParams or BindParameter, and
/// CParam::dateValeur.
struct KvnTimestamp {
    std::int16_t year;
    std::uint16_t month;   ///< 1 to 12
    std::uint16_t day;     ///< 1 to 31
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint32_t fraction;  ///< not sent to the service; received as up to 4 digits
};

/// The 8-byte numeric slot of a CParam; the member that holds the value is
/// the one of the CParam's type. A copy copies all 8 bytes.
union CValNum {
    std::int32_t lVal;  ///< SQL_C_LONG
    double dVal;        ///< SQL_C_DOUBLE
    std::int64_t llVal; ///< SQL_C_SBIGINT (and the 8 bytes of SQL_C_UBIGINT)
    CValNum() : llVal(0) {}
    CValNum(const CValNum& src) : llVal(src.llVal) {}
    CValNum& operator=(const CValNum& src) {
        llVal = src.llVal; // the 8 bytes, whatever the type
        return *this;
    }
};

/// One value of any type, as it travels in a message: its type code, its
/// size, a NULL flag and the value in the slot of its type. The library hands
/// values out in messages (CMsgSocket::GetParametre), rows
/// (CSelectBuffer::GetData) and GetData(int, int, CParam&).
///
/// A CParam owns its text (pszValeur, new[]), released by its destructor. A
/// value held by a message or a row belongs to that holder: the application
/// reads or copies it, and neither frees it nor assigns to it (the texts of
/// received values lie in their holder's memory). No lock: one thread at a
/// time.
class KVN_API CParam {
public:
    signed char cType;       ///< value type code (SQL_C_...), one byte
    /// Text: UTF-16 code units; bytes otherwise, 18 for a timestamp; -1 once
    /// encoded as NULL.
    short nTaille;
    kvn::Bool bNull;         ///< non-zero: the value is NULL
    CValNum valNum;          ///< SQL_C_LONG, SQL_C_DOUBLE, SQL_C_SBIGINT
    /// Zero-terminated text of SQL_C_CHAR and SQL_C_WCHAR, owned (new[]); may
    /// be null.
    wchar_t* pszValeur;
    KvnTimestamp dateValeur; ///< SQL_C_TIMESTAMP
    kvn::GUID guidValeur;    ///< SQL_C_GUID

    /// An empty value: type 0, not NULL, every slot zero, no text.
    CParam();
    /// A copy made with the assignment below (the text is duplicated).
    CParam(const CParam& src);
    /// Releases the text.
    ~CParam();

    /// Copies type, size and NULL flag, then:
    /// - a NULL value only releases this value's text; the other slots keep
    ///   what they held;
    /// - a text is copied into this value's own buffer (kept when it holds a
    ///   longer text, else replaced), and the numeric and date slots are
    ///   cleared;
    /// - a timestamp is copied and the numeric slot cleared;
    /// - any other type copies the 8 numeric bytes and clears the date; an
    ///   existing text buffer is kept.
    ///
    /// The GUID slot is copied only for SQL_C_GUID. When memory runs out the
    /// text is left null.
    CParam& operator=(const CParam& src);
};

/// A stored-procedure parameter: a CParam followed by its direction and the
/// application's variable. CKorvaneClient::SetStoredProcParams fills them in
/// the connection's own table; applications meet them only when they build
/// requests themselves (CMsgSocketClient::CreateExecStoredProc).
class KVN_API CParamProc : public CParam {
public:
    int nSens;                  ///< KVN_PARAM_IN, KVN_PARAM_INOUT, KVN_PARAM_OUT
    /// The application's variable of an OUT or IN/OUT parameter; not owned
    /// unless bVariableAllouee.
    void* pVariable;
    /// Non-zero: the object owns pVariable, a malloc block, and frees it (the
    /// library leaves it 0).
    kvn::Bool bVariableAllouee;

    /// An IN parameter without variable.
    CParamProc();
    /// A copy made with the assignment below.
    CParamProc(const CParamProc& src);
    /// Frees the variable when it owns it, and the text.
    ~CParamProc();

    /// Copies the CParam part and the direction; a variable this object owns
    /// is freed first. When src owns its variable, this object gets and owns
    /// a copy of it (4 bytes for a long, 8 for a double or a 64-bit integer,
    /// 16 for a timestamp or a GUID, 16384 for a text). Otherwise it refers to
    /// src's variable, and its own flag stays as it was: set, it makes this
    /// object the owner of that variable.
    CParamProc& operator=(const CParamProc& src);
    /// Copies the CParam part; the direction becomes IN and a variable this
    /// object owns is freed (the flag stays as it was).
    CParamProc& operator=(const CParam& src);
};

#pragma pack(pop)

#endif
