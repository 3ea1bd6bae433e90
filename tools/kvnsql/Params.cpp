// Parsers of the \call and \bind arguments.
#include "Params.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>

namespace {

struct TypeEntry {
    const wchar_t* name;
    int type;
};

// The first name of each type is the one shown back.
const TypeEntry kTypes[] = {
    {L"long", SQL_C_LONG},       {L"int", SQL_C_LONG},          {L"integer", SQL_C_LONG},
    {L"bigint", SQL_C_SBIGINT},  {L"int64", SQL_C_SBIGINT},     {L"double", SQL_C_DOUBLE},
    {L"float", SQL_C_DOUBLE},    {L"real", SQL_C_DOUBLE},       {L"text", SQL_C_WCHAR},
    {L"wchar", SQL_C_WCHAR},     {L"varchar", SQL_C_WCHAR},     {L"char", SQL_C_CHAR},
    {L"timestamp", SQL_C_TIMESTAMP}, {L"datetime", SQL_C_TIMESTAMP},
};

std::wstring Lower(std::wstring s) {
    for (wchar_t& c : s) c = static_cast<wchar_t>(std::towlower(c));
    return s;
}

// Reads the argument texts: quoted texts with '' for a quote, or bare words.
class Scanner {
public:
    explicit Scanner(const std::wstring& text) : text_(text), pos_(0) {}

    void SkipBlanks() {
        while (pos_ < text_.size() && std::iswspace(text_[pos_])) ++pos_;
    }
    bool AtEnd() {
        SkipBlanks();
        return pos_ >= text_.size();
    }
    wchar_t Peek() const { return pos_ < text_.size() ? text_[pos_] : L'\0'; }
    bool Accept(wchar_t c) {
        SkipBlanks();
        if (Peek() != c) return false;
        ++pos_;
        return true;
    }
    // A bare word ends at a blank, a comma, a parenthesis or (when
    // stopAtColon) a colon.
    std::wstring Word(bool stopAtColon) {
        SkipBlanks();
        const std::size_t start = pos_;
        while (pos_ < text_.size()) {
            const wchar_t c = text_[pos_];
            if (std::iswspace(c) || c == L',' || c == L'(' || c == L')' || c == L'\'') break;
            if (stopAtColon && c == L':') break;
            ++pos_;
        }
        return text_.substr(start, pos_ - start);
    }
    // At a quote: the quoted text. false when the closing quote is missing.
    bool Quoted(std::wstring& out) {
        out.clear();
        ++pos_;  // the opening quote
        while (pos_ < text_.size()) {
            const wchar_t c = text_[pos_++];
            if (c != L'\'') {
                out += c;
            } else if (Peek() == L'\'') {
                out += c;
                ++pos_;
            } else {
                return true;
            }
        }
        return false;
    }
    std::wstring Rest() {
        SkipBlanks();
        return text_.substr(pos_);
    }

private:
    const std::wstring& text_;
    std::size_t pos_;
};

bool ParseLong(const std::wstring& text, long long minimum, long long maximum, long long& value) {
    if (text.empty()) return false;
    errno = 0;
    wchar_t* end = nullptr;
    const long long v = std::wcstoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != L'\0' || v < minimum || v > maximum) return false;
    value = v;
    return true;
}

bool ParseDouble(const std::wstring& text, double& value) {
    if (text.empty()) return false;
    errno = 0;
    wchar_t* end = nullptr;
    const double v = std::wcstod(text.c_str(), &end);
    if (errno != 0 || *end != L'\0') return false;
    value = v;
    return true;
}

// Gives value the typed content of text; error says why it does not fit.
bool SetValue(int type, const std::wstring& text, TypedValue& value, std::wstring& error) {
    value.type = type;
    value.null = false;
    long long n = 0;
    switch (type) {
    case SQL_C_LONG:
        if (!ParseLong(text, INT32_MIN, INT32_MAX, n)) break;
        value.longValue = static_cast<std::int32_t>(n);
        return true;
    case SQL_C_SBIGINT:
        if (!ParseLong(text, LLONG_MIN, LLONG_MAX, n)) break;
        value.bigintValue = n;
        return true;
    case SQL_C_DOUBLE:
        if (!ParseDouble(text, value.doubleValue)) break;
        return true;
    case SQL_C_TIMESTAMP:
        if (!ParseTimestamp(text, value.timestamp)) break;
        return true;
    default:
        value.text = text;
        return true;
    }
    error = L"'" + text + L"' is not a " + TypeName(type);
    return false;
}

// A value without a type: a quoted text is text, an integer is a long (a
// bigint beyond 32 bits), another number a double, any other word text.
void InferValue(const std::wstring& text, bool quoted, TypedValue& value) {
    std::wstring ignored;
    long long n = 0;
    double d = 0;
    if (!quoted && ParseLong(text, LLONG_MIN, LLONG_MAX, n)) {
        SetValue(n >= INT32_MIN && n <= INT32_MAX ? SQL_C_LONG : SQL_C_SBIGINT, text, value, ignored);
    } else if (!quoted && ParseDouble(text, d)) {
        SetValue(SQL_C_DOUBLE, text, value, ignored);
    } else {
        SetValue(SQL_C_WCHAR, text, value, ignored);
    }
}

// One value: [TYPE:]VALUE, 'quoted', or (when allowNull) null. For OUT
// arguments (typeOnly) a TYPE alone.
bool ParseValue(Scanner& s, bool allowNull, bool typeOnly, TypedValue& value, std::wstring& error) {
    s.SkipBlanks();
    std::wstring text;
    if (s.Peek() == L'\'') {
        if (typeOnly) {
            error = L"an out argument takes a type, not a value";
            return false;
        }
        if (!s.Quoted(text)) {
            error = L"missing closing quote";
            return false;
        }
        InferValue(text, true, value);
        return true;
    }
    const std::wstring word = s.Word(true);
    const int type = TypeFromName(word);
    if (s.Peek() == L':' && type != 0) {
        s.Accept(L':');
        if (typeOnly) {
            error = L"an out argument takes a type, not a value";
            return false;
        }
        if (s.Peek() == L'\'') {
            if (!s.Quoted(text)) {
                error = L"missing closing quote";
                return false;
            }
        } else {
            text = s.Word(false);
            if (text.empty()) {
                error = L"missing value after " + word + L":";
                return false;
            }
        }
        return SetValue(type, text, value, error);
    }
    if (s.Peek() == L':') {
        error = L"unknown type '" + word + L"'";
        return false;
    }
    if (typeOnly) {
        if (type == 0) {
            error = word.empty() ? L"missing type" : L"unknown type '" + word + L"'";
            return false;
        }
        value.type = type;
        return true;
    }
    if (word.empty()) {
        error = L"missing value";
        return false;
    }
    if (type != 0) {
        error = L"missing value after " + word + L" (" + word + L":VALUE)";
        return false;
    }
    if (allowNull && Lower(word) == L"null") {
        value.type = SQL_C_WCHAR;
        value.null = true;
        return true;
    }
    InferValue(word, false, value);
    return true;
}

}  // namespace

int TypeFromName(const std::wstring& name) {
    const std::wstring lower = Lower(name);
    for (const TypeEntry& t : kTypes) {
        if (lower == t.name) return t.type;
    }
    return 0;
}

const wchar_t* TypeName(int type) {
    for (const TypeEntry& t : kTypes) {
        if (t.type == type) return t.name;
    }
    return L"?";
}

std::wstring ValueText(const TypedValue& value) {
    if (value.null) return L"null";
    wchar_t buffer[64];
    switch (value.type) {
    case SQL_C_LONG:
        return std::to_wstring(value.longValue);
    case SQL_C_SBIGINT:
        return std::to_wstring(value.bigintValue);
    case SQL_C_DOUBLE:
        std::swprintf(buffer, 64, L"%.15g", value.doubleValue);
        return buffer;
    case SQL_C_TIMESTAMP: {
        const KvnTimestamp t = value.timestamp;
        std::swprintf(buffer, 64, L"%04d-%02u-%02u %02u:%02u:%02u", t.year, t.month, t.day, t.hour,
                      t.minute, t.second);
        return buffer;
    }
    default:
        return value.text;
    }
}

bool ParseTimestamp(const std::wstring& text, KvnTimestamp& timestamp) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::size_t pos = 0;
    auto digits = [&](int count, int& out) {
        out = 0;
        for (int i = 0; i < count; ++i, ++pos) {
            if (pos >= text.size() || !std::iswdigit(text[pos])) return false;
            out = out * 10 + (text[pos] - L'0');
        }
        return true;
    };
    auto expect = [&](wchar_t c) {
        if (pos >= text.size() || text[pos] != c) return false;
        ++pos;
        return true;
    };
    if (!digits(4, year) || !expect(L'-') || !digits(2, month) || !expect(L'-') || !digits(2, day)) {
        return false;
    }
    std::uint32_t fraction = 0;
    if (pos < text.size()) {
        if (text[pos] != L' ' && text[pos] != L'T') return false;
        ++pos;
        if (!digits(2, hour) || !expect(L':') || !digits(2, minute)) return false;
        if (pos < text.size() && !(expect(L':') && digits(2, second))) return false;
        if (pos < text.size()) {
            if (!expect(L'.')) return false;
            // Nanoseconds: up to nine digits, the missing ones as zeros.
            int count = 0;
            while (pos < text.size() && std::iswdigit(text[pos]) && count < 9) {
                fraction = fraction * 10 + static_cast<std::uint32_t>(text[pos++] - L'0');
                ++count;
            }
            if (count == 0 || pos != text.size()) return false;
            for (; count < 9; ++count) fraction *= 10;
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) {
        return false;
    }
    timestamp.year = static_cast<std::int16_t>(year);
    timestamp.month = static_cast<std::uint16_t>(month);
    timestamp.day = static_cast<std::uint16_t>(day);
    timestamp.hour = static_cast<std::uint16_t>(hour);
    timestamp.minute = static_cast<std::uint16_t>(minute);
    timestamp.second = static_cast<std::uint16_t>(second);
    timestamp.fraction = fraction;
    return true;
}

bool ParseCall(const std::wstring& text, ProcCall& call, std::wstring& error) {
    call = ProcCall();
    Scanner s(text);
    call.name = s.Word(false);
    if (call.name.empty()) {
        error = L"missing procedure name";
        return false;
    }
    if (s.AtEnd()) return true;
    if (!s.Accept(L'(')) {
        error = L"expected '(' after " + call.name;
        return false;
    }
    if (s.Accept(L')')) {
        if (s.AtEnd()) return true;
        error = L"unexpected text after ')': " + s.Rest();
        return false;
    }
    for (;;) {
        ProcArgument argument;
        const std::wstring direction = Lower(s.Word(true));
        if (direction == L"in") argument.direction = KVN_PARAM_IN;
        else if (direction == L"inout") argument.direction = KVN_PARAM_INOUT;
        else if (direction == L"out") argument.direction = KVN_PARAM_OUT;
        else {
            error = L"argument " + std::to_wstring(call.arguments.size() + 1) +
                    L": expected in:, inout: or out:";
            return false;
        }
        if (!s.Accept(L':')) {
            error = L"argument " + std::to_wstring(call.arguments.size() + 1) + L": expected ':' after " +
                    direction;
            return false;
        }
        std::wstring why;
        if (!ParseValue(s, false, argument.direction == KVN_PARAM_OUT, argument.value, why)) {
            error = L"argument " + std::to_wstring(call.arguments.size() + 1) + L": " + why;
            return false;
        }
        call.arguments.push_back(argument);
        if (s.Accept(L',')) continue;
        if (s.Accept(L')')) break;
        error = L"expected ',' or ')' after argument " + std::to_wstring(call.arguments.size());
        return false;
    }
    if (!s.AtEnd()) {
        error = L"unexpected text after ')': " + s.Rest();
        return false;
    }
    return true;
}

bool ParseBind(const std::wstring& text, std::vector<TypedValue>& values, std::wstring& error) {
    values.clear();
    Scanner s(text);
    while (!s.AtEnd()) {
        TypedValue value;
        std::wstring why;
        if (!ParseValue(s, true, false, value, why)) {
            error = L"value " + std::to_wstring(values.size() + 1) + L": " + why;
            values.clear();
            return false;
        }
        values.push_back(value);
        s.Accept(L',');
    }
    return true;
}
