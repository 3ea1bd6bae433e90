// Between the values of the messages (CParam) and those of the database
// layer (DbValue): reading a request's parameters, adding an answer's.
#ifndef KORVANED_VALUES_H
#define KORVANED_VALUES_H

#include <string>

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

#endif
