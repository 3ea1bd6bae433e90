// The text of a value and the names of value types, for the message trace and
// the column readers.
#ifndef KORVANE_PROTOCOL_VALUETEXT_H
#define KORVANE_PROTOCOL_VALUETEXT_H

#include <korvane/CParam.h>
#include <korvane/platform/DStr.h>

// The value as text ("NULL" for a NULL value); texts between double quotes
// when bGuillemets is non-zero.
void ParamValeurToDStr(const CParam* p, DStr& texte, int bGuillemets);
// The same into buffer, which holds *pCapacite characters plus a terminator.
// A text that does not fit leaves buffer untouched and sets *pCapacite to the
// length needed.
void ParamValeurToBuffer(const CParam* p, wchar_t* buffer, int* pCapacite, int bGuillemets);
// Name of a type byte (0 to 255; the signed spellings are accepted too) into
// nom (room for 17 characters); returns nom.
wchar_t* GetNomType(int type, wchar_t* nom, int bStyleOdbc);

#endif
