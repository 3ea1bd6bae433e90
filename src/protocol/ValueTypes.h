// Value type codes as the library compares them.
//
// A value holds its ODBC C type code in one signed byte (CParam::cType), so a
// code is met both as its signed value and as its unsigned byte: -8 and 248
// are the same type. Types held in a value are compared by their byte.
//
// A type that an application declares (BindParameter, SetStoredProcParams) is
// an int and is compared as a whole, by both operations alike: the signed
// codes and their byte spellings are types, other ints are not, whatever
// their low byte (260 is not SQL_C_LONG).
#ifndef KORVANE_PROTOCOL_VALUETYPES_H
#define KORVANE_PROTOCOL_VALUETYPES_H

#include <korvane/KvnDefs.h>

constexpr unsigned char TypeByte(int type) { return static_cast<unsigned char>(type & 0xFF); }

constexpr bool IsTextType(int type) {
    return TypeByte(type) == TypeByte(SQL_C_CHAR) || TypeByte(type) == TypeByte(SQL_C_WCHAR);
}

// The types an application can bind or pass to a stored procedure: texts,
// long, double, timestamp and 64-bit integer (not the GUID).
constexpr bool IsDeclarableType(int type) {
    switch (type) {
    case SQL_C_CHAR:
    case SQL_C_WCHAR:
    case TypeByte(SQL_C_WCHAR):
    case SQL_C_LONG:
    case SQL_C_DOUBLE:
    case SQL_C_TIMESTAMP:
    case SQL_C_SBIGINT:
    case TypeByte(SQL_C_SBIGINT):
        return true;
    default:
        return false;
    }
}

#endif
