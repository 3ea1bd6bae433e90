// Statement boundaries, statement kinds and the column names of simple selects.
#include "Statements.h"

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
    // database's: they are not sent.
    const std::wstring statement = Trimmed(pending_.substr(SkipNoise(pending_, 0)));
    pending_.clear();
    if (!statement.empty()) items.push_back({false, statement});
}

namespace {

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

}  // namespace

std::vector<InputItem> StatementSplitter::AddLine(const std::wstring& line) {
    std::vector<InputItem> items;
    if (quote_ == 0 && !blockComment_ && dollarTag_.empty()) {
        const std::wstring trimmed = Trimmed(line);
        if (trimmed.empty()) {
            EndStatement(items);
            return items;
        }
        if (trimmed[0] == L'\\' && !Pending()) {
            pending_.clear();
            items.push_back({true, trimmed.substr(1)});
            return items;
        }
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
            // "select 1; \exists t": a command may follow the statement's end.
            const std::wstring rest = Trimmed(line.substr(i + 1));
            if (!rest.empty() && rest[0] == L'\\') {
                items.push_back({true, rest.substr(1)});
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
    pending_ += L'\n';
    return items;
}

std::vector<InputItem> StatementSplitter::Finish() {
    std::vector<InputItem> items;
    EndStatement(items);
    quote_ = 0;
    blockComment_ = false;
    dollarTag_.clear();
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
    return word == L"SELECT" || word == L"WITH" || word == L"VALUES" || word == L"PRAGMA" ||
           word == L"EXPLAIN" || word == L"SHOW";
}

std::vector<std::wstring> SelectColumnNames(const std::wstring& sql, std::wstring& starTable) {
    starTable.clear();
    std::size_t pos = SkipNoise(sql, 0);
    if (WordAt(sql, pos) != L"SELECT") return {};
    pos = SkipNoise(sql, pos + 6);
    const std::wstring quantifier = WordAt(sql, pos);
    if (quantifier == L"DISTINCT" || quantifier == L"ALL") pos = SkipNoise(sql, pos + quantifier.size());

    std::size_t fromAt = 0;
    std::vector<std::wstring> items = TopLevelItems(sql, pos, {L"FROM"}, fromAt);
    for (const std::wstring& item : items) {
        if (item.empty()) return {};
    }
    if (items.size() == 1 && items[0] == L"*") {
        if (fromAt == std::wstring::npos) return {};
        std::size_t at = SkipNoise(sql, fromAt + 4);
        std::size_t end = at;
        while (end < sql.size() && (IsWordChar(sql[end]) || sql[end] == L'.' || ClosingQuote(sql[end]))) {
            if (const wchar_t close = ClosingQuote(sql[end])) {
                const std::size_t q = sql.find(close, end + 1);
                if (q == std::wstring::npos) return {};
                end = q + 1;
            } else {
                ++end;
            }
        }
        const std::wstring table = sql.substr(at, end - at);
        const std::size_t next = SkipNoise(sql, end);
        const std::wstring following = WordAt(sql, next);
        const bool alone = next >= sql.size() || sql[next] == L';' || following == L"WHERE" ||
                           following == L"ORDER" || following == L"LIMIT" || following == L"GROUP" ||
                           following == L"HAVING" || following == L"OFFSET";
        if (!table.empty() && alone) starTable = Unquoted(table);
        return {};
    }
    std::vector<std::wstring> names;
    for (const std::wstring& item : items) {
        if (item == L"*" || (item.size() > 2 && item.compare(item.size() - 2, 2, L".*") == 0)) return {};
        names.push_back(ItemName(item));
    }
    return names;
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
