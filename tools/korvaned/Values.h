// Between the values of the messages (CParam) and those of the database
// layer (DbValue): reading a request's parameters, adding an answer's.
#ifndef KORVANED_VALUES_H
#define KORVANED_VALUES_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <korvane/CMsgSocket.h>

#include "DbValue.h"

// A text travels with at most this many UTF-16 code units.
constexpr int kMaxTextUnits = 32767;

// Parameter i as a database value: false when the message has no such
// parameter or its type is not one a database takes.
bool ReadDbValue(CMsgSocket& message, int i, DbValue* value);
// Parameter i as UTF-8 text: false unless it is a text that is not NULL.
bool ReadText(CMsgSocket& message, int i, std::string* text);
// Parameter i as a 32-bit integer: false unless it is a SQL_C_LONG that is not NULL.
bool ReadLong(CMsgSocket& message, int i, int* value);

void AddLong(CMsgSocket& message, int value);
// A text as SQL_C_CHAR unless textType says SQL_C_WCHAR. An empty text is
// better sent as SQL_C_CHAR: receivers drop an empty SQL_C_WCHAR value.
// Texts beyond kMaxTextUnits are cut.
void AddText(CMsgSocket& message, const std::string& utf8, int textType = SQL_C_CHAR);
// A NULL value of the given type.
void AddNull(CMsgSocket& message, int type);
void AddDbValue(CMsgSocket& message, const DbValue& value, int textType = SQL_C_CHAR);

// The message's type code for a database value's kind (texts: SQL_C_CHAR).
int TypeOfKind(DbValue::Kind kind);

// ---- Rows as they travel -----------------------------------------------------------

// Rows of a select encoded as they go on the wire, waiting to be sent: the
// records of their cells one after the other, and where each row ends. The
// bytes are those that AddDbValue and CMsgSocket's encoder give the same
// values, without a CParam a cell.
class WireRows : public DbCellSink {
public:
    void Null(DbValue::Kind kind) override;
    void Integer(std::int64_t value) override;
    void BigInt(std::int64_t value) override;
    void Double(double value) override;
    void Timestamp(const DbTimestamp& value) override;
    void Text(const char* utf8, std::size_t bytes) override;
    void EndRow() override;

    // Complete rows waiting.
    int Rows() const { return static_cast<int>(ends_.size() - first_); }
    // How many of the first rows to send: at most maxRows, and no more than
    // keep their records within maxBytes (one row at least).
    int Fit(int maxRows, std::size_t maxBytes) const;
    // The records of the first n rows.
    const BYTE* Data() const { return bytes_.get() + Start(); }
    std::size_t BytesOf(int n) const { return n > 0 ? ends_[first_ + n - 1] - Start() : 0; }
    // The first n rows have been sent.
    void Drop(int n);
    void Clear();

private:
    std::size_t Start() const { return first_ > 0 ? ends_[first_ - 1] : 0; }
    // Room for n more bytes at the end: where to write them.
    BYTE* Append(std::size_t n);
    BYTE* Head(int type, std::size_t size, std::size_t valueBytes);

    // A buffer of its own rather than a vector: appending a record is the
    // service's inner loop, and needs no zeroing of what is written anyway.
    std::unique_ptr<BYTE[]> bytes_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
    std::vector<std::size_t> ends_;  // where each row's records end in bytes_
    std::size_t first_ = 0;          // rows of ends_ already sent
};

// An answer whose records the service encoded itself: 32-bit values first
// (the status and what precedes the cells), then the records of the first
// `rows` rows of `cells`, `values` records in all.
class EncodedAnswer : public CMsgSocket {
public:
    bool Set(int idApplication, int fonction, int idConnexion, CParamComm& comm, const std::vector<int>& longs,
             const WireRows& cells, int rows, int values);
};

#endif
