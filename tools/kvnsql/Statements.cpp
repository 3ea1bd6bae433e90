// Statement boundaries, and the column names of results read from statements.
#include "Statements.h"

#include <algorithm>
#include <cwctype>

namespace {

std::wstring Trimmed(const std::wstring& text) {
    std::size_t b = 0, e = text.size();
    while (b < e && std::iswspace(text[b])) ++b;
    while (e > b && std::iswspace(text[e - 1])) --e;
    return text.substr(b, e - b);
}

std::wstring Upper(std::wstring s) {
    for (wchar_t& c : s) c = static_cast<wchar_t>(std::towupper(c));
    return s;
}

bool IsWordChar(wchar_t c) {
    return std::iswalnum(c) || c == L'_' || c == L'$';
}

// Skips blanks and comments from pos; returns the new position.
std::size_t SkipNoise(const std::wstring& s, std::size_t pos) {
    for (;;) {
        while (pos < s.size() && std::iswspace(s[pos])) ++pos;
        if (s.compare(pos, 2, L"--") == 0) {
            pos = s.find(L'\n', pos);
            if (pos == std::wstring::npos) return s.size();
        } else if (s.compare(pos, 2, L"/*") == 0) {
            pos = s.find(L"*/", pos + 2);
            if (pos == std::wstring::npos) return s.size();
            pos += 2;
        } else {
            return pos;
        }
    }
}

// The word at pos (letters, digits, _ and $), upper case.
std::wstring WordAt(const std::wstring& s, std::size_t pos) {
    std::size_t end = pos;
    while (end < s.size() && IsWordChar(s[end])) ++end;
    return Upper(s.substr(pos, end - pos));
}

wchar_t ClosingQuote(wchar_t c) {
    switch (c) {
    case L'\'': return L'\'';
    case L'"': return L'"';
    case L'`': return L'`';
    case L'[': return L']';
    default: return 0;
    }
}

// A name as written: "quoted", [quoted], `quoted` or bare; the bare part of a
// qualified name (schema.table) is its last part.
std::wstring Unquoted(const std::wstring& name) {
    if (name.size() >= 2 && ClosingQuote(name[0]) != 0 && name.back() == ClosingQuote(name[0]) &&
        name[0] != L'\'') {
        return name.substr(1, name.size() - 2);
    }
    return name;
}

bool IsQualifiedName(const std::wstring& text) {
    if (text.empty()) return false;
    bool partStart = true;
    for (wchar_t c : text) {
        if (c == L'.') {
            if (partStart) return false;
            partStart = true;
        } else if (IsWordChar(c) && !(partStart && std::iswdigit(c))) {
            partStart = false;
        } else if (!IsWordChar(c)) {
            return false;
        }
    }
    return !partStart;
}

// The dollar-quote tag ("$$", "$body$") that starts at pos, or empty; "$1"
// is a parameter marker and "a$b$" a name, not tags.
std::wstring DollarTagAt(const std::wstring& line, std::size_t pos) {
    if (line[pos] != L'$' || (pos > 0 && IsWordChar(line[pos - 1]))) return std::wstring();
    std::size_t end = pos + 1;
    if (end < line.size() && std::iswdigit(line[end])) return std::wstring();
    while (end < line.size() && (std::iswalnum(line[end]) || line[end] == L'_')) ++end;
    if (end >= line.size() || line[end] != L'$') return std::wstring();
    return line.substr(pos, end - pos + 1);
}

// Splits the text at depth 0 outside quotes: the items between commas, and
// where the first of the stop words begins (npos when none).
std::vector<std::wstring> TopLevelItems(const std::wstring& s, std::size_t from,
                                        const std::vector<std::wstring>& stopWords,
                                        std::size_t& stopAt) {
    std::vector<std::wstring> items;
    int depth = 0;
    std::size_t start = from;
    stopAt = std::wstring::npos;
    std::size_t i = from;
    while (i < s.size()) {
        const wchar_t c = s[i];
        if (const wchar_t close = ClosingQuote(c)) {
            const std::size_t end = s.find(close, i + 1);
            i = end == std::wstring::npos ? s.size() : end + 1;
            continue;
        }
        const std::wstring tag = c == L'$' ? DollarTagAt(s, i) : std::wstring();
        if (!tag.empty()) {
            const std::size_t end = s.find(tag, i + tag.size());
            i = end == std::wstring::npos ? s.size() : end + tag.size();
            continue;
        }
        if (c == L'(') ++depth;
        else if (c == L')') --depth;
        else if (c == L',' && depth == 0) {
            items.push_back(Trimmed(s.substr(start, i - start)));
            start = i + 1;
        } else if (depth == 0 && IsWordChar(c) && (i == 0 || !IsWordChar(s[i - 1]))) {
            const std::wstring word = WordAt(s, i);
            for (const std::wstring& stop : stopWords) {
                if (word == stop) {
                    stopAt = i;
                    break;
                }
            }
            if (stopAt != std::wstring::npos) break;
            i += word.size();
            continue;
        }
        ++i;
    }
    std::size_t end = stopAt == std::wstring::npos ? s.size() : stopAt;
    std::wstring last = Trimmed(s.substr(start, end - start));
    if (!last.empty() && last.back() == L';') last = Trimmed(last.substr(0, last.size() - 1));
    items.push_back(last);
    return items;
}

std::wstring ItemName(const std::wstring& item) {
    // Trailing alias: "expr AS name" or "expr name".
    std::size_t end = item.size();
    std::size_t begin = end;
    if (end > 0 && ClosingQuote(item[0]) == 0 && (item[end - 1] == L'"' || item[end - 1] == L']' ||
                                                  item[end - 1] == L'`')) {
        const wchar_t close = item[end - 1];
        const wchar_t open = close == L']' ? L'[' : close;
        const std::size_t at = item.rfind(open, end - 2);
        if (at != std::wstring::npos) begin = at;
    } else {
        while (begin > 0 && IsWordChar(item[begin - 1])) --begin;
    }
    if (begin > 0 && begin < end && std::iswspace(item[begin - 1])) {
        const std::wstring alias = item.substr(begin);
        std::size_t before = begin;
        while (before > 0 && std::iswspace(item[before - 1])) --before;
        std::size_t wordStart = before;
        while (wordStart > 0 && IsWordChar(item[wordStart - 1])) --wordStart;
        if (Upper(item.substr(wordStart, before - wordStart)) == L"AS") return Unquoted(alias);
        // "expr name": the alias follows a complete operand, not an operator
        // or a keyword that needs more after it.
        const wchar_t prev = before > 0 ? item[before - 1] : L'\0';
        const std::wstring upper = Upper(alias);
        if ((IsWordChar(prev) || prev == L')' || prev == L'\'' || prev == L'"') && upper != L"END" &&
            ClosingQuote(item[0]) == 0) {
            return Unquoted(alias);
        }
    }
    const std::wstring bare = Unquoted(item);
    if (IsQualifiedName(bare)) return bare.substr(bare.rfind(L'.') + 1);
    return item;
}

}  // namespace

// Text made of blanks and comments only is no statement: it is never sent,
// and a command may follow it.
bool StatementSplitter::Pending() const {
    return SkipNoise(pending_, 0) < pending_.size();
}

void StatementSplitter::EndStatement(std::vector<InputItem>& items) {
    // Comments before the statement's first word are the reader's, not the
    // database's: they are not sent, and its line is that of the first word.
    const std::size_t start = SkipNoise(pending_, 0);
    const std::wstring statement = Trimmed(pending_.substr(start));
    const int line = startLine_ + static_cast<int>(std::count(pending_.begin(), pending_.begin() + start, L'\n'));
    pending_.clear();
    if (!statement.empty()) items.push_back({false, statement, line});
}


namespace {

// "\q" and "\r" alone on a line are commands whatever came before: the way
// out of a quote or a comment left open.
bool IsEscapeCommand(const std::wstring& trimmed) {
    return trimmed == L"\\q" || trimmed == L"\\quit" || trimmed == L"\\r" || trimmed == L"\\reset";
}

}  // namespace

std::vector<InputItem> StatementSplitter::AddLine(const std::wstring& line) {
    std::vector<InputItem> items;
    ++lineNumber_;
    if (pending_.empty()) startLine_ = lineNumber_;
    const std::wstring trimmed = Trimmed(line);
    const bool open = quote_ != 0 || blockComment_ || !dollarTag_.empty();
    if (IsEscapeCommand(trimmed) || (!open && !trimmed.empty() && trimmed[0] == L'\\')) {
        RunCommandLine(trimmed.substr(1), items);
        return items;
    }
    for (std::size_t i = 0; i < line.size(); ++i) {
        const wchar_t c = line[i];
        if (blockComment_) {
            pending_ += c;
            if (c == L'*' && i + 1 < line.size() && line[i + 1] == L'/') {
                pending_ += line[++i];
                blockComment_ = false;
            }
        } else if (quote_ != 0) {
            pending_ += c;
            if (c == quote_) quote_ = 0;  // a doubled quote closes and reopens
        } else if (!dollarTag_.empty()) {
            if (line.compare(i, dollarTag_.size(), dollarTag_) == 0) {
                pending_ += dollarTag_;
                i += dollarTag_.size() - 1;
                dollarTag_.clear();
            } else {
                pending_ += c;
            }
        } else if (c == L'$' && !(dollarTag_ = DollarTagAt(line, i)).empty()) {
            pending_ += dollarTag_;
            i += dollarTag_.size() - 1;
        } else if (c == L';') {
            EndStatement(items);
            startLine_ = lineNumber_;
            // "select 1; \exists t": a command may follow the statement's end.
            const std::wstring rest = Trimmed(line.substr(i + 1));
            if (!rest.empty() && rest[0] == L'\\') {
                RunCommandLine(rest.substr(1), items);
                return items;
            }
        } else if (c == L'-' && i + 1 < line.size() && line[i + 1] == L'-') {
            pending_ += line.substr(i);
            break;
        } else if (c == L'/' && i + 1 < line.size() && line[i + 1] == L'*') {
            pending_ += L"/*";
            ++i;
            blockComment_ = true;
        } else {
            pending_ += c;
            quote_ = ClosingQuote(c);
        }
    }
    // A statement goes on over blank lines: only its ';' ends it.
    pending_ += L'\n';
    return items;
}

void StatementSplitter::RunCommandLine(const std::wstring& command, std::vector<InputItem>& items) {
    std::wstring name, arguments;
    SplitCommand(command, name, arguments);
    if (name == L"r" || name == L"reset") {
        Clear();
    } else if (name == L"g") {
        // Sends what is pending as if it ended with ';'.
        const bool open = quote_ != 0 || blockComment_ || !dollarTag_.empty();
        if (!open) {
            EndStatement(items);
            return;
        }
    }
    items.push_back({true, command, lineNumber_});
}

void StatementSplitter::Clear() {
    pending_.clear();
    quote_ = 0;
    blockComment_ = false;
    dollarTag_.clear();
}

std::vector<InputItem> StatementSplitter::Finish() {
    std::vector<InputItem> items;
    EndStatement(items);
    Clear();
    return items;
}

std::vector<InputItem> SplitText(const std::wstring& text) {
    StatementSplitter splitter;
    std::vector<InputItem> items;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(L'\n', start);
        const std::wstring line = text.substr(start, end == std::wstring::npos ? end : end - start);
        for (InputItem& item : splitter.AddLine(line)) items.push_back(std::move(item));
        if (end == std::wstring::npos) break;
        start = end + 1;
    }
    for (InputItem& item : splitter.Finish()) items.push_back(std::move(item));
    return items;
}

bool ReturnsRows(const std::wstring& sql) {
    std::size_t pos = SkipNoise(sql, 0);
    while (pos < sql.size() && sql[pos] == L'(') pos = SkipNoise(sql, pos + 1);
    const std::wstring word = WordAt(sql, pos);
    return word == L"SELECT" || word == L"WITH" || word == L"VALUES" || word == L"TABLE" ||
           word == L"PRAGMA" || word == L"EXPLAIN" || word == L"SHOW";
}

namespace {

// The position of the first word at depth 0 from pos that is one of words
// (outside quotes and parentheses), or npos.
std::size_t FindTopLevelWord(const std::wstring& s, std::size_t pos, const std::vector<std::wstring>& words) {
    std::size_t at = std::wstring::npos;
    TopLevelItems(s, pos, words, at);
    return at;
}

// The position just after the parenthesis that closes the one at pos.
std::size_t AfterParentheses(const std::wstring& s, std::size_t pos) {
    int depth = 0;
    for (; pos < s.size(); ++pos) {
        if (const wchar_t close = ClosingQuote(s[pos])) {
            pos = s.find(close, pos + 1);
            if (pos == std::wstring::npos) return s.size();
        } else if (s[pos] == L'(') {
            ++depth;
        } else if (s[pos] == L')' && --depth == 0) {
            return pos + 1;
        }
    }
    return s.size();
}

// After "WITH [RECURSIVE] name [(columns)] AS [NOT] [MATERIALIZED] (...), ...":
// where the statement that the common table expressions serve begins.
std::size_t SkipWith(const std::wstring& sql, std::size_t pos) {
    pos = SkipNoise(sql, pos + 4);
    if (WordAt(sql, pos) == L"RECURSIVE") pos = SkipNoise(sql, pos + 9);
    for (int guard = 0; guard < 1000 && pos < sql.size(); ++guard) {
        // Up to the body's opening parenthesis, past the optional column list.
        const std::size_t as = FindTopLevelWord(sql, pos, {L"AS"});
        if (as == std::wstring::npos) return sql.size();
        pos = sql.find(L'(', as);
        if (pos == std::wstring::npos) return sql.size();
        pos = SkipNoise(sql, AfterParentheses(sql, pos));
        if (pos >= sql.size() || sql[pos] != L',') return pos;
        pos = SkipNoise(sql, pos + 1);
    }
    return sql.size();
}

// A name as written at pos ("x", schema.t, [t]...); end receives where it stops.
std::wstring NameAt(const std::wstring& s, std::size_t pos, std::size_t& end) {
    end = pos;
    while (end < s.size() && (IsWordChar(s[end]) || s[end] == L'.' || ClosingQuote(s[end]) != 0)) {
        if (const wchar_t close = ClosingQuote(s[end])) {
            if (s[end] == L'\'') break;
            const std::size_t q = s.find(close, end + 1);
            if (q == std::wstring::npos) break;
            end = q + 1;
        } else {
            ++end;
        }
    }
    return s.substr(pos, end - pos);
}

bool IsOneOf(const std::wstring& word, std::initializer_list<const wchar_t*> words) {
    for (const wchar_t* w : words) {
        if (word == w) return true;
    }
    return false;
}

// A word that starts a join: the next table follows.
bool StartsJoin(const std::wstring& word) {
    return IsOneOf(word, {L"JOIN", L"INNER", L"LEFT", L"RIGHT", L"FULL", L"CROSS", L"NATURAL"});
}

// A word of a FROM clause that is no table and no alias.
bool IsJoinWord(const std::wstring& word) {
    return StartsJoin(word) || IsOneOf(word, {L"OUTER", L"ON", L"USING", L"LATERAL"});
}

struct FromTable {
    std::wstring table;  // empty: a subquery or a function, whose columns are unknown
    std::wstring alias;
};

// From pos, where the next table of a FROM clause is announced: a ',' or a
// join word at depth 0 (the clause's size when none).
std::size_t NextFromSeparator(const std::wstring& s, std::size_t pos) {
    while (pos < s.size()) {
        const wchar_t c = s[pos];
        if (c == L'(') {
            pos = AfterParentheses(s, pos);
        } else if (const wchar_t close = ClosingQuote(c)) {
            pos = s.find(close, pos + 1);
            if (pos == std::wstring::npos) return s.size();
            ++pos;
        } else if (c == L',') {
            return pos;
        } else if (IsWordChar(c) && (pos == 0 || !IsWordChar(s[pos - 1]))) {
            const std::wstring word = WordAt(s, pos);
            if (StartsJoin(word)) return pos;
            pos += word.size();
        } else {
            ++pos;
        }
    }
    return s.size();
}

// The tables of a FROM clause, in order: "a x JOIN b ON ... , c AS y".
std::vector<FromTable> FromTables(const std::wstring& clause) {
    std::vector<FromTable> tables;
    std::size_t pos = 0;
    while ((pos = SkipNoise(clause, pos)) < clause.size()) {
        const std::wstring word = WordAt(clause, pos);
        if (clause[pos] == L',') {
            ++pos;
            continue;
        }
        if (IsJoinWord(word)) {
            pos += word.size();
            continue;
        }
        FromTable t;
        std::size_t end = pos;
        if (clause[pos] == L'(') {
            end = AfterParentheses(clause, pos);  // a subquery
        } else {
            t.table = Unquoted(NameAt(clause, pos, end));
            if (end == pos) return {};
            const std::size_t after = SkipNoise(clause, end);
            if (after < clause.size() && clause[after] == L'(') {
                t.table.clear();  // a function
                end = AfterParentheses(clause, after);
            }
        }
        pos = SkipNoise(clause, end);
        if (WordAt(clause, pos) == L"AS") pos = SkipNoise(clause, pos + 2);
        const std::wstring alias = WordAt(clause, pos);
        if ((!alias.empty() && !IsJoinWord(alias)) || (pos < clause.size() && clause[pos] == L'"')) {
            t.alias = Unquoted(NameAt(clause, pos, end));
            pos = end;
        }
        tables.push_back(t);
        pos = NextFromSeparator(clause, pos);
    }
    return tables;
}

bool SameName(const std::wstring& a, const std::wstring& b) { return Upper(a) == Upper(b); }

// The headers of a list of result items (a select list or a RETURNING list)
// over the tables they come from.
std::vector<HeaderItem> ItemHeaders(const std::vector<std::wstring>& items, const std::vector<FromTable>& tables) {
    std::vector<HeaderItem> headers;
    for (const std::wstring& item : items) {
        if (item.empty()) return {};
        if (item == L"*") {
            if (tables.empty()) return {};
            for (const FromTable& t : tables) {
                if (t.table.empty()) return {};
                headers.push_back({std::wstring(), t.table});
            }
        } else if (item.size() > 2 && item.compare(item.size() - 2, 2, L".*") == 0) {
            const std::wstring owner = Unquoted(item.substr(0, item.size() - 2));
            const FromTable* found = nullptr;
            for (const FromTable& t : tables) {
                // Unaliased, a table goes by its name, qualified or not.
                const std::wstring bare = t.table.substr(t.table.rfind(L'.') + 1);
                if (SameName(t.alias, owner) ||
                    (t.alias.empty() && (SameName(t.table, owner) || SameName(bare, owner)))) {
                    found = &t;
                    break;
                }
            }
            if (!found || found->table.empty()) return {};
            headers.push_back({std::wstring(), found->table});
        } else {
            headers.push_back({ItemName(item), std::wstring()});
        }
    }
    return headers;
}

const std::vector<std::wstring> kSelectEnd = {L"WHERE", L"GROUP", L"HAVING", L"WINDOW", L"ORDER", L"LIMIT",
                                              L"OFFSET", L"FETCH", L"UNION", L"EXCEPT", L"INTERSECT", L"FOR"};

}  // namespace

std::vector<HeaderItem> GuessHeaders(const std::wstring& sql) {
    std::size_t pos = SkipNoise(sql, 0);
    while (pos < sql.size() && sql[pos] == L'(') pos = SkipNoise(sql, pos + 1);
    if (WordAt(sql, pos) == L"WITH") pos = SkipWith(sql, pos);
    const std::wstring first = WordAt(sql, pos);
    if (first == L"SELECT") {
        pos = SkipNoise(sql, pos + 6);
        const std::wstring quantifier = WordAt(sql, pos);
        if (quantifier == L"DISTINCT" || quantifier == L"ALL") pos = SkipNoise(sql, pos + quantifier.size());
        std::size_t fromAt = 0;
        const std::vector<std::wstring> items = TopLevelItems(sql, pos, {L"FROM"}, fromAt);
        std::vector<FromTable> tables;
        if (fromAt != std::wstring::npos) {
            const std::size_t endAt = FindTopLevelWord(sql, fromAt + 4, kSelectEnd);
            std::wstring clause = sql.substr(fromAt + 4, endAt == std::wstring::npos ? endAt : endAt - fromAt - 4);
            while (!clause.empty() && (clause.back() == L';' || std::iswspace(clause.back()))) clause.pop_back();
            tables = FromTables(clause);
        }
        return ItemHeaders(items, tables);
    }
    if (first == L"TABLE") {
        std::size_t end = 0;
        const std::wstring table = NameAt(sql, SkipNoise(sql, pos + 5), end);
        if (table.empty()) return {};
        return {{std::wstring(), Unquoted(table)}};
    }
    if (first == L"VALUES") {
        // As many columns as the first row has values: column1, column2...
        pos = SkipNoise(sql, pos + 6);
        if (pos >= sql.size() || sql[pos] != L'(') return {};
        const std::wstring row = sql.substr(pos + 1, AfterParentheses(sql, pos) - pos - 2);
        std::size_t stop = 0;
        const std::size_t count = TopLevelItems(row, 0, {}, stop).size();
        std::vector<HeaderItem> headers;
        for (std::size_t c = 1; c <= count; ++c) headers.push_back({L"column" + std::to_wstring(c), std::wstring()});
        return headers;
    }
    if (first == L"INSERT" || first == L"UPDATE" || first == L"DELETE") {
        // The target table, then the RETURNING list.
        std::size_t at = SkipNoise(sql, pos + first.size());
        const std::wstring next = WordAt(sql, at);
        if (next == L"INTO" || next == L"FROM") at = SkipNoise(sql, at + next.size());
        std::size_t end = 0;
        const std::wstring table = Unquoted(NameAt(sql, at, end));
        const std::size_t returning = FindTopLevelWord(sql, end, {L"RETURNING"});
        if (returning == std::wstring::npos || table.empty()) return {};
        std::size_t stop = 0;
        const std::vector<std::wstring> items = TopLevelItems(sql, returning + 9, {}, stop);
        return ItemHeaders(items, {{table, std::wstring()}});
    }
    return {};
}

void SplitCommand(const std::wstring& command, std::wstring& name, std::wstring& arguments) {
    std::size_t end = 0;
    while (end < command.size() && !std::iswspace(command[end])) ++end;
    name = command.substr(0, end);
    for (wchar_t& c : name) c = static_cast<wchar_t>(std::towlower(c));
    arguments = Trimmed(command.substr(end));
    // "\exists t;" reads as a statement would: the ';' ends it.
    while (!arguments.empty() && arguments.back() == L';') {
        arguments = Trimmed(arguments.substr(0, arguments.size() - 1));
    }
}
