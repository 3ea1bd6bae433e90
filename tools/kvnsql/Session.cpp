// Running statements: every statement through the select path, whose answer
// says whether it brought a result (shown as a table) or affected rows;
// bound statements with the values of \bind; the error texts of failures.
#include "Session.h"

#include <chrono>
#include <cstdio>
#include <cwchar>
#include <map>

#include <korvane/CKorvaneClient.h>

#include "Terminal.h"
#include "Utf8.h"

namespace {

// Beyond this many columns a row is taken as endless: the library answers
// KVN_NO_DATA past the last column, so only a broken service gets here.
const int kMaxColumns = 10000;

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Failures of the link or of the library itself, where the service has no
// diagnostic of its own to add.
bool IsLocalFailure(int code) {
    switch (code) {
    case KVN_ERROR_MEMORY:
    case KVN_ERROR_RECEIVE:
    case KVN_ERROR_SEND:
    case KVN_ERROR_SOCKET_CLOSED:
    case KVN_ERROR_HANDLE_CNX:
    case KVN_ERROR_TIMEOUT:
        return true;
    default:
        return false;
    }
}

std::wstring AffectedLine(int rows) {
    if (rows < 0) return L"OK";
    return L"OK, " + std::to_wstring(rows) + (rows == 1 ? L" row affected" : L" rows affected");
}

// What korvaned returns beside a select's rows: the result's column count
// (1 or more), or for a statement without result set -1 - the rows it
// affected, 0 when the database cannot tell them.
int RowsAffected(int resultat) { return resultat == 0 ? -1 : -1 - resultat; }

std::wstring Indented(const std::wstring& text) {
    std::wstring out = L"  ";
    for (wchar_t c : text) {
        out += c;
        if (c == L'\n') out += L"  ";
    }
    return out;
}

std::size_t Lines(const std::wstring& text, std::size_t& widest) {
    std::size_t lines = 0, start = 0;
    widest = 0;
    while (start < text.size()) {
        std::size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos) end = text.size();
        widest = std::max(widest, DisplayWidth(text.substr(start, end - start)));
        ++lines;
        start = end + 1;
    }
    return lines;
}

}  // namespace

KvnsqlSession::KvnsqlSession(CKorvaneClient& client, int hCnx, std::FILE* out, std::FILE* err,
                             const SessionSettings& settings)
    : client_(client), hCnx_(hCnx), out_(out), err_(err), settings_(settings) {}

bool KvnsqlSession::Run(const InputItem& item) {
    line_ = item.line;
    std::wstring name, arguments;
    if (item.command) SplitCommand(item.text, name, arguments);
    // \echo prints its text already; echoing the command too would say it twice.
    if (settings_.echo && name != L"echo") {
        Print(item.command ? L"\\" + item.text + L"\n" : item.text + L";\n");
    }
    const bool ok = item.command ? RunCommand(item.text) : RunStatement(item.text);
    std::fflush(out_);
    // A Ctrl-C has done its work once the item is over.
    ClearInterrupt();
    return ok;
}

void KvnsqlSession::Print(const std::wstring& text) {
    const std::string bytes = ToUtf8(text);
    std::fwrite(bytes.data(), 1, bytes.size(), out_);
}

void KvnsqlSession::Show(const std::wstring& text) {
    int rows = 0, columns = 0;
    std::size_t widest = 0;
    if (settings_.pager && settings_.outIsTerminal && !settings_.pagerCommand.empty() &&
        TerminalSize(out_, rows, columns) &&
        (Lines(text, widest) >= static_cast<std::size_t>(rows) || widest > static_cast<std::size_t>(columns))) {
        std::fflush(out_);
        if (ShowInPager(ToUtf8(text), settings_.pagerCommand)) return;
    }
    Print(text);
}

void KvnsqlSession::Status(const std::wstring& text) {
    if (!settings_.quiet) Print(text + L"\n");
}

void KvnsqlSession::Note(const std::wstring& text) {
    std::fflush(out_);
    const std::string bytes = ToUtf8(text + L"\n");
    std::fwrite(bytes.data(), 1, bytes.size(), err_);
    std::fflush(err_);
}

void KvnsqlSession::ShowTiming(double milliseconds) {
    if (!settings_.timing) return;
    wchar_t text[48];
    std::swprintf(text, 48, L"Time: %.3f ms", milliseconds);
    Note(text);
}

void KvnsqlSession::ReportUsage(const std::wstring& text) {
    std::wstring where;
    if (!settings_.source.empty()) where = FromUtf8(settings_.source) + L":" + std::to_wstring(line_) + L": ";
    Note(where + text);
}

void KvnsqlSession::ReportError(const std::wstring& what, int code) {
    DStr text;
    client_.GetErrorTxt(code, text);
    std::wstring message = L"ERROR " + std::to_wstring(code) + L" (" + what + L"): " + text.GetString();
    if (!IsLocalFailure(code)) {
        DStr detail;
        if (client_.GetLastErrorConnexion(hCnx_, detail) == KVN_NO_ERROR && !detail.IsEmpty()) {
            message += L"\n" + Indented(detail.GetString());
        }
    }
    ReportUsage(message);
}

bool KvnsqlSession::RunStatement(const std::wstring& sql) {
    if (!pendingBinds_.empty()) return RunBound(sql);
    // Header names that only the catalog knows are asked before the
    // statement, so that the question does not meet its open result.
    const std::vector<HeaderItem> guess = GuessHeaders(sql);
    std::map<std::wstring, std::vector<std::wstring>> tableColumns;
    for (const HeaderItem& h : guess) {
        if (h.starTable.empty() || tableColumns.count(h.starTable)) continue;
        int count = 0;
        DStr names, types;
        ServiceWait wait;
        if (client_.GetColumns(hCnx_, h.starTable.c_str(), count, names, types) == KVN_NO_ERROR) {
            tableColumns[h.starTable] = SplitList(names.GetString());
        }
    }

    const auto start = std::chrono::steady_clock::now();
    int resultat = 0;
    int rc = 0;
    {
        ServiceWait wait;
        // Ctrl-C right after the line was entered: nothing goes out.
        if (Interrupted()) {
            Note(L"cancelled before it was sent");
            return false;
        }
        rc = client_.ExecuteSelect(hCnx_, sql.c_str(), resultat);
    }
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecuteSelect", rc);
        return false;
    }
    if (resultat <= 0) {
        // Done by the service, cancelled or not: say what it did.
        Status(AffectedLine(RowsAffected(resultat)));
        ShowTiming(MillisecondsSince(start));
        return true;
    }
    if (Interrupted()) {
        client_.LibereStatment(hCnx_);
        Note(L"cancelled: the statement ran, its rows are not shown");
        return false;
    }

    ResultTable table;
    std::vector<std::wstring> names;
    for (const HeaderItem& h : guess) {
        if (h.starTable.empty()) {
            names.push_back(h.name);
            continue;
        }
        const auto found = tableColumns.find(h.starTable);
        if (found == tableColumns.end()) {
            names.clear();
            break;
        }
        names.insert(names.end(), found->second.begin(), found->second.end());
    }
    if (names.size() != static_cast<std::size_t>(resultat)) {
        names.clear();
        for (int c = 1; c <= resultat; ++c) names.push_back(L"#" + std::to_wstring(c));
    }
    table.headers = names;
    const bool ok = FetchRows(resultat, table);
    const double elapsed = MillisecondsSince(start);
    const int release = client_.LibereStatment(hCnx_);
    if (!ok) return false;
    if (release != KVN_NO_ERROR) ReportError(L"LibereStatment", release);

    Show(FormatResult(table, settings_.style));
    if (!settings_.style.tuplesOnly && settings_.style.format != OutputFormat::Csv) {
        Note(RowCountLine(table.rows.size()));
    }
    ShowTiming(elapsed);
    return true;
}

bool KvnsqlSession::FetchRows(int columns, ResultTable& table) {
    // Per column: the type met, 0 for none yet, -1 for mixed.
    std::vector<int> types(static_cast<std::size_t>(columns), 0);
    ServiceWait fetching(true);
    for (;;) {
        if (Interrupted()) {
            const std::size_t n = table.rows.size();
            Note(L"cancelled after " + std::to_wstring(n) + (n == 1 ? L" row" : L" rows") +
                 L", the rest left unread");
            return false;
        }
        int rc = client_.Fetch(hCnx_);
        if (rc == KVN_NO_DATA) break;
        if (rc != KVN_NO_ERROR) {
            ReportError(L"Fetch", rc);
            return false;
        }
        std::vector<Cell> row;
        for (int col = 1; col <= kMaxColumns; ++col) {
            CParam value;
            rc = client_.GetData(hCnx_, col, value);
            if (rc == KVN_NO_DATA) break;
            if (rc != KVN_NO_ERROR) {
                ReportError(L"GetData column " + std::to_wstring(col), rc);
                return false;
            }
            Cell cell;
            cell.null = value.bNull != 0;
            if (!cell.null) cell.text = CellText(value);
            if (types.size() < static_cast<std::size_t>(col)) types.resize(col, 0);
            if (!cell.null) {
                int& t = types[col - 1];
                t = t == 0 || t == value.cType ? value.cType : -1;
            }
            row.push_back(std::move(cell));
        }
        table.rows.push_back(std::move(row));
    }
    for (int type : types) table.rightAligned.push_back(IsNumericType(type));
    return true;
}

bool KvnsqlSession::RunBound(const std::wstring& sql) {
    // The library keeps bound values only until the next answer on the
    // connection, so they are bound right before the statement, every time.
    std::vector<TypedValue> values;
    values.swap(pendingBinds_);
    if (ReturnsRows(sql)) {
        Note(L"note: a bound statement shows no rows (the service answers it with a count only)");
    }
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < values.size(); ++i) {
        TypedValue& v = values[i];
        void* data = nullptr;
        unsigned int size = 0;
        switch (v.type) {
        case SQL_C_LONG: data = &v.longValue, size = sizeof v.longValue; break;
        case SQL_C_SBIGINT: data = &v.bigintValue, size = sizeof v.bigintValue; break;
        case SQL_C_DOUBLE: data = &v.doubleValue, size = sizeof v.doubleValue; break;
        case SQL_C_TIMESTAMP: data = &v.timestamp, size = sizeof v.timestamp; break;
        default: data = &v.text[0], size = static_cast<unsigned int>(v.text.size()); break;
        }
        if (v.null) data = nullptr, size = 0;
        const int rc = client_.BindParameter(hCnx_, static_cast<int>(i) + 1, v.type, data, size);
        if (rc != KVN_NO_ERROR) {
            ReportError(L"BindParameter " + std::to_wstring(i + 1), rc);
            return false;
        }
    }
    int resultat = 0;
    int rc = 0;
    {
        ServiceWait wait;
        rc = client_.ExecuteBind(hCnx_, sql.c_str(), resultat);
    }
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecuteBind", rc);
        return false;
    }
    Status(AffectedLine(resultat) + L" (" + std::to_wstring(values.size()) +
           (values.size() == 1 ? L" value bound)" : L" values bound)"));
    ShowTiming(MillisecondsSince(start));
    return true;
}
