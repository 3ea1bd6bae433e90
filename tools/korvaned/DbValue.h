// A value as the database layer sees it: what a bound or stored-procedure
// parameter carries to the database, and what a result cell or an OUT
// parameter brings back. Free of the ODBC headers and of the message
// classes, so that each side converts to and from it on its own.
#ifndef KORVANED_DBVALUE_H
#define KORVANED_DBVALUE_H

#include <cstddef>
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

// Where the rows of a select go, cell after cell in column order, as the
// database layer reads them: the service encodes them as they travel
// (Values.h) without a DbValue a cell.
class DbCellSink {
public:
    virtual ~DbCellSink() = default;
    virtual void Null(DbValue::Kind kind) = 0;
    // An Integer cell holds a value of the 32-bit range; a wider one is a BigInt.
    virtual void Integer(std::int64_t value) = 0;
    virtual void BigInt(std::int64_t value) = 0;
    virtual void Double(double value) = 0;
    virtual void Timestamp(const DbTimestamp& value) = 0;
    // UTF-8, `bytes` long (the text ends at its first NUL if it has one).
    virtual void Text(const char* utf8, std::size_t bytes) = 0;
    // The row's last cell came.
    virtual void EndRow() = 0;

    // Any value, by its kind.
    void Value(const DbValue& v) {
        if (v.null) return Null(v.kind);
        switch (v.kind) {
        case DbValue::Kind::Integer: return Integer(v.integer);
        case DbValue::Kind::BigInt: return BigInt(v.integer);
        case DbValue::Kind::Double: return Double(v.real);
        case DbValue::Kind::Timestamp: return Timestamp(v.timestamp);
        case DbValue::Kind::Text: return Text(v.text.data(), v.text.size());
        }
    }
};

struct DbColumn {
    std::string name;
    std::string type;          // the database's own type name
};

#endif
