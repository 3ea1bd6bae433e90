// A value as the database layer sees it: what a bound or stored-procedure
// parameter carries to the database, and what a result cell or an OUT
// parameter brings back. Free of the ODBC headers and of the message
// classes, so that each side converts to and from it on its own.
#ifndef KORVANED_DBVALUE_H
#define KORVANED_DBVALUE_H

#include <cstdint>
#include <string>

struct DbTimestamp {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    unsigned fraction = 0;
};

struct DbValue {
    enum class Kind { Integer, BigInt, Double, Timestamp, Text };
    Kind kind = Kind::Text;
    bool null = true;
    std::int64_t integer = 0;  // Integer (32-bit range) and BigInt
    double real = 0;
    DbTimestamp timestamp;
    std::string text;          // UTF-8
};

// Direction of a stored-procedure parameter.
enum class DbDirection { In, InOut, Out };

struct DbProcParam {
    DbDirection direction = DbDirection::In;
    DbValue value;             // IN value; after the call, the OUT value
};

struct DbColumn {
    std::string name;
    std::string type;          // the database's own type name
};

#endif
