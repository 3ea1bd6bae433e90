// Typed values typed at the prompt: the arguments of \call and \bind.
//
// Parsing only: nothing here talks to the service, so that the syntax can be
// tested on its own. The values are kept in the widths that the library
// reads them in (a long is 4 bytes there, whatever the platform's long is).
#ifndef KVNSQL_PARAMS_H
#define KVNSQL_PARAMS_H

#include <cstdint>
#include <string>
#include <vector>

#include <korvane/CParam.h>

struct TypedValue {
    int type = SQL_C_WCHAR;  // SQL_C_LONG, SQL_C_SBIGINT, SQL_C_DOUBLE, SQL_C_TIMESTAMP,
                             // SQL_C_WCHAR or SQL_C_CHAR
    bool null = false;       // a bound NULL (\bind only)
    std::int32_t longValue = 0;
    std::int64_t bigintValue = 0;
    double doubleValue = 0;
    KvnTimestamp timestamp{};
    std::wstring text;
};

struct ProcArgument {
    int direction = KVN_PARAM_IN;  // KVN_PARAM_IN, KVN_PARAM_INOUT or KVN_PARAM_OUT
    TypedValue value;              // for OUT: the type only
};

struct ProcCall {
    std::wstring name;
    std::vector<ProcArgument> arguments;
};

// "NAME(DIR:TYPE:VALUE, DIR:VALUE, out:TYPE, ...)"; the parentheses may be
// left out for a procedure without arguments. false with error on bad syntax.
bool ParseCall(const std::wstring& text, ProcCall& call, std::wstring& error);

// "TYPE:VALUE VALUE null ..." separated by blanks or commas.
bool ParseBind(const std::wstring& text, std::vector<TypedValue>& values, std::wstring& error);

// "long", "text" ...: the SQL_C_ code, or 0 for an unknown name.
int TypeFromName(const std::wstring& name);
// The name that TypeFromName takes for a code.
const wchar_t* TypeName(int type);

// The value as typed at the prompt (a timestamp as YYYY-MM-DD HH:MM:SS).
std::wstring ValueText(const TypedValue& value);

// "YYYY-MM-DD[ HH:MM[:SS[.fraction]]]" ('T' also separates); the fraction is
// kept in nanoseconds as ODBC does.
bool ParseTimestamp(const std::wstring& text, KvnTimestamp& timestamp);

#endif
